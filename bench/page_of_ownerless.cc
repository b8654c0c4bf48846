// page-of-ownerless library|plain|memory RECORDS KEYWORD name|usage first|middle: shows a page of
// 50 out of so many ownerless mail directories, ascending and descending, and prints the seconds
// that it took. "memory" prints the bytes of working memory that the library took for each
// directory instead.
//
// The directories come from the stand-in platform of the tests; there are none on disk.
#include <malloc.h>

#include <algorithm>
#include <cctype>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <iostream>
#include <new>
#include <string>
#include <vector>

#include <fmt/format.h>
#include <json/value.h>

#include <velamailserver/account/no_owner.h>

#include "recording_platform/world.h"
#include "timing.h"

namespace {

using velamailserver::account::NoOwnerMaildir;
using velamailserver::webapi::NoOwner;

constexpr std::size_t kPageSize = 50;

// Bytes on the heap, now and at most, while they are watched.
bool is_watched = false;
std::size_t heap = 0;
std::size_t largest_heap = 0;

void* Allocate(std::size_t size) {
  void* memory = std::malloc(size);
  if (memory == nullptr) {
    throw std::bad_alloc();
  }
  if (is_watched) {
    heap += ::malloc_usable_size(memory);
    largest_heap = std::max(largest_heap, heap);
  }
  return memory;
}

void Free(void* memory) noexcept {
  if (is_watched) {
    heap -= ::malloc_usable_size(memory);
  }
  std::free(memory);
}

struct Query {
  unsigned long offset;
  std::string keyword;
  std::string sort_by;
};

// No two names and no two figures are the same, so that there is one order only.
NoOwner MakeDirectories(std::size_t count) {
  constexpr const char* kGiven[] = {"anna",      "bert", "carla",    "dmitri",
                                    "elisabeth", "fan",  "giuseppe", "hana"};
  constexpr std::size_t kPrime = 1'000'003;
  const recording::Pause pause;
  for (std::size_t i = 0; i < count; ++i) {
    const std::size_t number = i * 7919 % kPrime;
    const std::string name = fmt::format("{}.{}", kGiven[number % std::size(kGiven)], number);
    recording::TheWorld().AddOwnerless(
        "/maildir/local/" + name,
        {static_cast<unsigned int>(3'000'000 + i), number * 4099, name, true});
  }
  return {};
}

std::string Lower(std::string text) {
  std::transform(text.begin(), text.end(), text.begin(),
                 [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  return text;
}

// The page as its rules put it: a copy of everything, filtered, sorted, turned round.
Json::Value PlainPage(const std::vector<NoOwnerMaildir>& all, const Query& query,
                      const std::string& direction) {
  std::vector<NoOwnerMaildir> maildirs = all;
  if (!query.keyword.empty()) {
    const std::string keyword = Lower(query.keyword);
    std::erase_if(maildirs, [&](const NoOwnerMaildir& maildir) {
      return Lower(maildir.name.value_or("")).find(keyword) == std::string::npos;
    });
  }
  if (query.sort_by == "usage") {
    std::sort(maildirs.begin(), maildirs.end(), [](const auto& left, const auto& right) {
      return left.usage.value_or(0) < right.usage.value_or(0);
    });
  } else {
    std::sort(maildirs.begin(), maildirs.end(),
              [](const auto& left, const auto& right) { return left.name < right.name; });
  }
  if (direction == "DESC") {
    std::reverse(maildirs.begin(), maildirs.end());
  }
  Json::Value page(Json::arrayValue);
  for (std::size_t i = query.offset; i < std::min(query.offset + kPageSize, maildirs.size()); ++i) {
    Json::Value entry;
    entry["uid"] = maildirs[i].uid;
    entry["name"] = maildirs[i].name.value_or("");
    entry["usage"] = Json::UInt64{maildirs[i].usage.value_or(0)};
    page.append(entry);
  }
  Json::Value result;
  result["no_owner_list"] = page;
  result["total"] = Json::UInt64{maildirs.size()};
  return result;
}

Json::Value LibraryPage(NoOwner& no_owner, const Query& query, const std::string& direction) {
  return no_owner.List(query.offset, kPageSize, query.keyword, query.sort_by, direction);
}

double WorkingMemory(NoOwner& no_owner, const Query& query, std::size_t count) {
  is_watched = true;
  for (const char* direction : {"ASC", "DESC"}) {
    LibraryPage(no_owner, query, direction);
  }
  is_watched = false;
  return static_cast<double>(largest_heap) / static_cast<double>(count);
}

int Run(const std::string& how, std::size_t count, const Query& query) {
  NoOwner no_owner = MakeDirectories(count);
  recording::TheWorld() = recording::World();
  if (how == "memory") {
    std::printf("%.6f\n", WorkingMemory(no_owner, query, count));
    return EXIT_SUCCESS;
  }
  const std::vector<NoOwnerMaildir> all = no_owner.List({});
  std::vector<Json::Value> pages;
  quillon::bench::Time([&] {
    for (const char* direction : {"ASC", "DESC"}) {
      pages.push_back(how == "library" ? LibraryPage(no_owner, query, direction)
                                       : PlainPage(all, query, direction));
    }
  });
  if (pages.front() != PlainPage(all, query, "ASC") ||
      pages.back() != PlainPage(all, query, "DESC")) {
    std::cerr << "the pages differ\n";
    return EXIT_FAILURE;
  }
  return EXIT_SUCCESS;
}

}  // namespace

void* operator new(std::size_t size) { return Allocate(size); }
void operator delete(void* memory) noexcept { Free(memory); }
void operator delete(void* memory, std::size_t /*size*/) noexcept { Free(memory); }

int main(int argc, char** argv) {
  if (argc != 6) {
    std::cerr << "usage: page-of-ownerless library|plain|memory RECORDS KEYWORD name|usage "
                 "first|middle\n";
    return EXIT_FAILURE;
  }
  const std::size_t count = std::stoull(argv[2]);
  const bool is_first = argv[5] == std::string("first");
  const std::string keyword = argv[3];
  // An eighth of the names holds the keyword of the benchmark.
  const std::size_t middle = keyword.empty() ? count / 2 : count / 16;
  return Run(argv[1], count, {is_first ? 0 : middle, keyword, argv[4]});
}
