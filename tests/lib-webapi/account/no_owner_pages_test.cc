#include <algorithm>
#include <cctype>
#include <iterator>
#include <random>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <json/value.h>

#include <velamailserver/account/no_owner.h>

#include "recording_platform/world_test.h"
#include "support/typed_json.h"

namespace velamailserver::webapi {
namespace {

using account::NoOwnerMaildir;
using quillon::test::Typed;
using recording::OwnerlessMaildir;
using recording::Pause;

// Random directories, searches and pages, the same ones in every run.
class Chance {
 public:
  explicit Chance(unsigned int seed) : engine_(seed) {}

  std::size_t Below(std::size_t bound) { return engine_() % bound; }

  template <typename T>
  const T& OneOf(const std::vector<T>& choices) {
    return choices[Below(choices.size())];
  }

  // Few bytes, so that many texts are alike: zeroes, both letter cases, beyond ASCII.
  std::string Text(std::size_t longest) {
    static constexpr char kBytes[] = {'\0', 'a',    'A',    'b',    'B',
                                      'z',  '\x7f', '\x80', '\xc4', '\xff'};
    std::string text(Below(longest + 1), ' ');
    for (char& c : text) {
      c = kBytes[Below(std::size(kBytes))];
    }
    return text;
  }

  OwnerlessMaildir Maildir(const std::vector<std::string>& prefixes) {
    OwnerlessMaildir maildir;
    if (Below(5) > 0) {
      maildir.name = OneOf(prefixes) + Text(3);
    }
    if (Below(4) > 0) {
      maildir.usage =
          OneOf<unsigned long long>({0, 1, 2, 255, 256, 4294967296ULL, 9223372036854775807ULL,
                                     9223372036854775808ULL, 18446744073709551615ULL});
    }
    return maildir;
  }

 private:
  std::mt19937 engine_;
};

struct Query {
  std::string keyword;
  std::string sort_by;
  std::string sort_direction;
};

std::string LowerCase(std::string text) {
  for (char& c : text) {
    c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  }
  return text;
}

// All entries of the answer to a query, in the plainest way.
std::vector<Json::Value> Reference(std::vector<NoOwnerMaildir> maildirs, const Query& query) {
  if (!query.keyword.empty()) {
    std::erase_if(maildirs, [&](const NoOwnerMaildir& maildir) {
      return LowerCase(maildir.name.value_or("")).find(LowerCase(query.keyword)) ==
             std::string::npos;
    });
  }
  std::stable_sort(maildirs.begin(), maildirs.end(),
                   [&](const NoOwnerMaildir& left, const NoOwnerMaildir& right) {
                     return query.sort_by == "usage"
                                ? left.usage.value_or(0) < right.usage.value_or(0)
                                : left.name.value_or("") < right.name.value_or("");
                   });
  if (query.sort_direction == "DESC") {
    std::reverse(maildirs.begin(), maildirs.end());
  }
  std::vector<Json::Value> entries;
  for (const NoOwnerMaildir& maildir : maildirs) {
    Json::Value& entry = entries.emplace_back(Json::objectValue);
    entry["uid"] = Json::UInt{maildir.uid};
    entry["name"] = maildir.name.value_or("");
    entry["usage"] = Json::UInt64{maildir.usage.value_or(0)};
  }
  return entries;
}

// The page of `entries` that begins at `offset`. `limit` is not so large that anything overflows.
Json::Value ReferencePage(const std::vector<Json::Value>& entries, std::size_t offset, long limit) {
  Json::Value page(Json::objectValue);
  page["no_owner_list"] = Json::Value(Json::arrayValue);
  for (std::size_t i = offset;
       i < entries.size() && (limit < 0 || i < offset + static_cast<std::size_t>(limit)); ++i) {
    page["no_owner_list"].append(entries[i]);
  }
  page["total"] = Json::UInt64{entries.size()};
  return page;
}

class NoOwnerPagesTest : public recording::WorldTest {
 protected:
  // An object that found `count` directories, with uids that tell them apart.
  NoOwner WithDirectories(std::size_t count) {
    world_ = recording::World();
    const std::string common = chance_.Text(20);
    const std::vector<std::string> prefixes = {
        "", common, common, common.substr(0, 7), common.substr(0, 8), chance_.Text(9)};
    for (std::size_t i = 0; i < count; ++i) {
      OwnerlessMaildir maildir = chance_.Maildir(prefixes);
      maildir.uid = static_cast<unsigned int>(i);
      world_.AddOwnerless("/maildir/local/" + std::to_string(i), maildir);
    }
    return {};
  }

  Query SomeQuery() {
    return {chance_.Below(2) == 0 ? "" : chance_.Text(2),
            chance_.OneOf<std::string>({"usage", "name", "uid", ""}),
            chance_.OneOf<std::string>({"DESC", "ASC", "desc", ""})};
  }

  static Json::Value Page(NoOwner& no_owner, std::size_t offset, long limit, const Query& query) {
    return no_owner.List(offset, limit, query.keyword, query.sort_by, query.sort_direction);
  }

  const Pause pause_;
  Chance chance_{20240229};
};

TEST_F(NoOwnerPagesTest, AreThoseOfAPlainSort) {
  for (int round = 0; round < 3000; ++round) {
    const std::size_t count = chance_.Below(40);
    NoOwner no_owner = WithDirectories(count);
    const std::vector<NoOwnerMaildir> maildirs = no_owner.List(std::vector<unsigned int>{});
    ASSERT_EQ(maildirs.size(), count);
    const Query query = SomeQuery();
    const std::vector<Json::Value> entries = Reference(maildirs, query);
    const auto expect_page = [&](std::size_t offset, long limit) {
      const Json::Value page = Page(no_owner, offset, limit, query);
      const Json::Value reference = ReferencePage(entries, offset, limit);
      ASSERT_EQ(page, reference) << "round " << round << ", offset " << offset << ", limit "
                                 << limit << ": " << Typed(page) << " for " << Typed(reference);
    };
    expect_page(0, -1);
    for (int page = 0; page < 4; ++page) {
      expect_page(chance_.Below(count + 3), static_cast<long>(chance_.Below(count + 3)) - 1);
    }
  }
}

TEST_F(NoOwnerPagesTest, TogetherAreTheWholeListWithNothingTwiceOrLost) {
  for (int round = 0; round < 200; ++round) {
    NoOwner no_owner = WithDirectories(chance_.Below(150));
    const Query query = SomeQuery();
    const Json::Value whole = Page(no_owner, 0, -1, query);
    const long limit = 1 + static_cast<long>(chance_.Below(20));
    Json::Value together(Json::arrayValue);
    for (std::size_t offset = 0; offset < whole["total"].asUInt64();
         offset += static_cast<std::size_t>(limit)) {
      const Json::Value page = Page(no_owner, offset, limit, query);
      for (const Json::Value& entry : page["no_owner_list"]) {
        together.append(entry);
      }
    }
    ASSERT_EQ(together, whole["no_owner_list"]) << "round " << round << ", limit " << limit;
  }
}

TEST_F(NoOwnerPagesTest, OfALongListAreThoseOfAPlainSort) {
  NoOwner no_owner = WithDirectories(5000);
  const std::vector<NoOwnerMaildir> maildirs = no_owner.List(std::vector<unsigned int>{});
  for (const char* sort_by : {"usage", "name"}) {
    for (const char* direction : {"ASC", "DESC"}) {
      for (const char* keyword : {"", "A"}) {
        const Query query{keyword, sort_by, direction};
        const std::vector<Json::Value> entries = Reference(maildirs, query);
        for (const std::size_t offset : {std::size_t{0}, std::size_t{1}, entries.size() / 2,
                                         entries.size() - 50, entries.size() - 1, entries.size()}) {
          ASSERT_EQ(Page(no_owner, offset, 50, query), ReferencePage(entries, offset, 50))
              << keyword << " " << sort_by << " " << direction << " " << offset;
        }
      }
    }
  }
}

}  // namespace
}  // namespace velamailserver::webapi
