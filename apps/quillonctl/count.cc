#include "count.h"

#include <fmt/format.h>

std::string Count(unsigned long long count, const std::string& noun, const std::string& plural) {
  return fmt::format("{} {}", count, count == 1 ? noun : plural);
}

std::string PartOf(unsigned long long shown, unsigned long long total) {
  return shown == total ? "" : fmt::format("{} of ", shown);
}

std::string CountOfUsers(unsigned long long count) { return Count(count, "user", "users"); }

std::string CountOfGroups(unsigned long long count) { return Count(count, "group", "groups"); }
