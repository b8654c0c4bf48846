// Has a file of quotas imported on another host, as a process that is root's no more but may become
// so again, and tells which ids it has and whether it can read the file.
//   upload_as_user UID HOST FILE
#include <grp.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <iostream>

#include <fmt/format.h>
#include <json/value.h>

#include <quillon/platform/configuration.h>
#include <velamailserver/utils.h>

#include "system/web_server.h"

namespace {

// Standard error would not come in the same order.
void Tell(const std::string& line) { std::cout << line << '\n' << std::flush; }

void TellIdentity(const char* when, const char* file) {
  uid_t uid = 0;
  uid_t euid = 0;
  uid_t suid = 0;
  gid_t gid = 0;
  gid_t egid = 0;
  gid_t sgid = 0;
  if (::getresuid(&uid, &euid, &suid) != 0 || ::getresgid(&gid, &egid, &sgid) != 0) {
    std::abort();
  }
  Tell(fmt::format("{}: uids {} {} {}, gids {} {} {}, the file is {}", when, uid, euid, suid, gid,
                   egid, sgid, std::ifstream(file).is_open() ? "open to it" : "closed to it"));
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 4) {
    return EXIT_FAILURE;
  }
  const auto user = static_cast<uid_t>(std::atoi(argv[1]));
  const char* const file = argv[3];
  quillon::platform::UseConfiguration(
      quillon::platform::LoadConfiguration(quillon::platform::kDefaultConfigurationFile));
  if (::setgroups(0, nullptr) != 0 || ::setresgid(user, user, 0) != 0 ||
      ::setresuid(user, user, 0) != 0) {
    return EXIT_FAILURE;
  }

  Json::Value request;
  request["api"] = "Quillon.MailServer.Quota";
  request["version"] = 1;
  request["method"] = "import";
  Json::Value upload;
  upload["file_key"] = "file";
  upload["file_path"] = file;
  Json::Value response;
  TellIdentity("before", file);
  const int code = WebAPIRequest(argv[2], "boss", quillon::test::kWebPassword, request, response,
                                 "https", 5001, -1, upload);
  TellIdentity("after", file);
  Tell(fmt::format("code {}, rows {}", code, response["data"]["rows"].asInt()));
  ::_exit(EXIT_SUCCESS);  // a leak check is not possible after a change of identity
}
