#include "details.h"

#include <fstream>
#include <optional>

#include <fmt/format.h>

namespace quillon::bench {

namespace {

std::string TextOf(const std::optional<unsigned long long>& bytes) {
  return bytes ? fmt::to_string(*bytes) : "-";
}

}  // namespace

void WriteDetails(const std::vector<velamailserver::webapi::MoreInfo>& infos,
                  const std::string& path) {
  std::ofstream file(path);
  for (const velamailserver::webapi::MoreInfo& info : infos) {
    file << fmt::format("{} {} {} {} {} {}\n", info.name, info.has_app_privilege,
                        info.maildir ? info.maildir->path : "-", TextOf(info.share_quota),
                        TextOf(info.quota_limit), TextOf(info.usage));
  }
}

}  // namespace quillon::bench
