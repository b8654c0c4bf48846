#include <algorithm>
#include <array>
#include <cctype>
#include <cstddef>
#include <cstdint>
#include <set>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include <quillon/platform/usage_count.h>
#include <vela/process.h>
#include <velamailserver/account/no_owner.h>
#include <velamailserver/conf/smtp_ext.h>
#include <velamailserver/log_exception.h>
#include <velamailserver/velasdk/file_lock_guard.h>
#include <velamailserver/velasdk/popen.h>
#include <velamailserver/velasdk/run_as_root.h>

#include "account/name_prefix.h"
#include "origin_log.h"

namespace velamailserver::webapi {

namespace {

using account::NoOwnerMaildir;
using velasdk::FileLockGuard;
using velasdk::Popen;
using velasdk::RunAsRoot;

constexpr char kSourceFile[] = "lib-webapi/account/no_owner";
constexpr int kForkFailedLine = 53;
constexpr int kSkipRefreshLine = 66;
constexpr int kFindFailedLine = 155;

constexpr char kFind[] = "/bin/find";

// Keys that a document refers to instead of copying them; it may outlive every use of this library,
// which is linked never to be unloaded.
const Json::StaticString kUid("uid");
const Json::StaticString kName("name");
const Json::StaticString kUsage("usage");

// The settings and the arguments are gone when this returns: only the command goes on.
Popen StartFind() {
  const conf::SmtpExt settings;
  return {kFind,
          {settings.MaildirPath(), "-mindepth", "2", "-maxdepth", "2", "-type", "d", "-nouser"}};
}

std::string_view NameOf(const NoOwnerMaildir& maildir) {
  return maildir.name ? std::string_view(*maildir.name) : "";
}

unsigned long long UsageOf(const NoOwnerMaildir& maildir) { return maildir.usage.value_or(0); }

// Looks for a word in names without regard to letter case.
class Filter {
 public:
  explicit Filter(const std::string& keyword) {
    for (std::size_t byte = 0; byte < lower_.size(); ++byte) {
      lower_[byte] = static_cast<char>(std::tolower(static_cast<int>(byte)));
    }
    keyword_ = LowerCase(keyword);
  }

  bool Keeps(const NoOwnerMaildir& maildir) {
    return keyword_.empty() || LowerCase(NameOf(maildir)).find(keyword_) != std::string::npos;
  }

 private:
  const std::string& LowerCase(std::string_view text) {
    text_.resize(text.size());
    std::transform(text.begin(), text.end(), text_.begin(),
                   [this](char c) { return lower_[static_cast<unsigned char>(c)]; });
    return text_;
  }

  std::array<char, 256> lower_{};  // tolower() of every byte
  std::string keyword_;
  std::string text_;  // the last text in lower case, kept for its memory
};

// A record in the order of a page. Sorting these touches the records themselves, which lie all over
// the memory, only where `key` does not decide.
struct Ranked {
  std::uint64_t key;
  const NoOwnerMaildir* maildir;
};

// Equal records are in the order of the scan, in which they lie in the memory.
bool IsBeforeByUsage(const Ranked& left, const Ranked& right) {
  return left.key != right.key ? left.key < right.key : left.maildir < right.maildir;
}

bool IsBeforeByName(const Ranked& left, const Ranked& right) {
  if (left.key != right.key) {
    return left.key < right.key;
  }
  const int order = NameOf(*left.maildir).compare(NameOf(*right.maildir));
  return order != 0 ? order < 0 : left.maildir < right.maildir;
}

std::vector<Ranked> Rank(const std::vector<NoOwnerMaildir>& maildirs, const std::string& keyword,
                         bool is_by_usage) {
  Filter filter(keyword);
  std::vector<Ranked> ranked;
  ranked.reserve(maildirs.size());
  for (const NoOwnerMaildir& maildir : maildirs) {
    if (filter.Keeps(maildir)) {
      ranked.push_back({is_by_usage ? UsageOf(maildir) : PrefixOf(NameOf(maildir)), &maildir});
    }
  }
  return ranked;
}

// Puts in order what lies in [begin, end) of the whole order, and leaves the rest beside it as it
// comes.
template <typename IsBefore>
void SortPage(std::vector<Ranked>& ranked, std::size_t begin, std::size_t end, IsBefore is_before) {
  const auto at = [&ranked](std::size_t position) {
    return ranked.begin() + static_cast<std::ptrdiff_t>(position);
  };
  std::nth_element(ranked.begin(), at(begin), ranked.end(), is_before);
  std::nth_element(at(begin), at(end), ranked.end(), is_before);
  std::sort(at(begin), at(end), is_before);
}

Json::Value Entry(const NoOwnerMaildir& maildir) {
  const std::string_view name = NameOf(maildir);
  Json::Value entry(Json::objectValue);
  entry[kUid] = Json::UInt{maildir.uid};
  entry[kName] = Json::Value(name.data(), name.data() + name.size());
  entry[kUsage] = Json::UInt64{UsageOf(maildir)};
  return entry;
}

}  // namespace

NoOwner::NoOwner() { FindNoOwner(); }

void NoOwner::FindNoOwner() {
  RunAsRoot("set no owner", [this] {
    Popen find = StartFind();
    if (!find.IsOpen()) {
      throw LogException(ERR_POPEN, kFind, 3, kSourceFile, kFindFailedLine);
    }
    std::string line;
    while (find.GetLine(line)) {
      line.erase(line.find_last_not_of('\n') + 1);
      const NoOwnerMaildir maildir(line);
      if (!maildir.flag) {
        continue;
      }
      maildirs.push_back(maildir);
      if (!maildir.usage) {
        need_refresh = true;
      }
    }
  });
}

void NoOwner::Refresh() {
  const int child = VLIBCProcForkChildNoWait();
  if (child < 0) {
    throw LogException(ERR_SDK_FORK_CHILD, "", 3, kSourceFile, kForkFailedLine);
  }
  if (child > 0) {
    return;
  }
  try {
    const FileLockGuard lock(quillon::platform::kUsageCountLockFile);
    RunAsRoot("refresh no owner usage", [this] {
      for (NoOwnerMaildir& maildir : maildirs) {
        maildir.RefreshCache();
      }
    });
  } catch (const std::runtime_error&) {
    LogWithOrigin(1, kSourceFile, kSkipRefreshLine, "counting usage, skip refresh");
  }
}

Json::Value NoOwner::List(unsigned long offset, long limit, const std::string& keyword,
                          const std::string& sort_by, const std::string& sort_direction) {
  const bool is_by_usage = sort_by == "usage";
  std::vector<Ranked> ranked = Rank(maildirs, keyword, is_by_usage);
  const std::size_t total = ranked.size();

  const std::size_t begin = std::min<std::size_t>(offset, total);
  const std::size_t rest = total - begin;
  const std::size_t count = limit < 0 ? rest : std::min(static_cast<std::size_t>(limit), rest);

  // The order reversed is the order of the reversed comparison: no two records are equal in it.
  const auto is_before = is_by_usage ? IsBeforeByUsage : IsBeforeByName;
  if (sort_direction == "DESC") {
    SortPage(ranked, begin, begin + count, [is_before](const Ranked& left, const Ranked& right) {
      return is_before(right, left);
    });
  } else {
    SortPage(ranked, begin, begin + count, is_before);
  }

  Json::Value page(Json::arrayValue);
  for (std::size_t i = begin; i < begin + count; ++i) {
    page.append(Entry(*ranked[i].maildir));
  }

  if (need_refresh) {
    VELA::EndChildAfter([this] { Refresh(); });
    need_refresh = false;
  }

  Json::Value result(Json::objectValue);
  result["no_owner_list"] = std::move(page);
  result["total"] = Json::UInt64{total};
  return result;
}

std::vector<NoOwnerMaildir> NoOwner::List(const std::vector<unsigned int>& uids) {
  const std::set<unsigned int> wanted(uids.begin(), uids.end());
  std::vector<NoOwnerMaildir> found;
  for (const NoOwnerMaildir& maildir : maildirs) {
    if (wanted.empty() || wanted.contains(maildir.uid)) {
      found.push_back(maildir);
    }
  }
  return found;
}

void NoOwner::RemoveStorage(const std::vector<unsigned int>& uids) {
  const std::set<unsigned int> doomed(uids.begin(), uids.end());
  RunAsRoot("remove user maildir", [this, &doomed] {
    for (const NoOwnerMaildir& maildir : maildirs) {
      if (doomed.contains(maildir.uid)) {
        maildir.Delete();
      }
    }
  });
  FindNoOwner();
}

}  // namespace velamailserver::webapi
