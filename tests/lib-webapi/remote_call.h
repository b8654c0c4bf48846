#pragma once

#include <initializer_list>
#include <string>
#include <vector>

#include "recording_platform/world.h"

namespace quillon::test {

using Lines = std::vector<std::string>;

/// Parts of the transcript of calls to other hosts, for tests to put together.

inline Lines Joined(std::initializer_list<Lines> parts) {
  Lines all;
  for (const Lines& part : parts) {
    all.insert(all.end(), part.begin(), part.end());
  }
  return all;
}

/// What stands in the mail log, and in the transcript.
inline recording::LogRecord Logged(int line, const std::string& message, const std::string& text) {
  const std::string origin = "lib-webapi/utils:" + std::to_string(line) + " ";
  return {3, origin + message, origin + text};
}
inline recording::LogRecord Logged(int line, const std::string& message) {
  return Logged(line, message, message);
}
inline std::string LogCall(int line, const std::string& text) {
  return "maillog(3, \"lib-webapi/utils:" + std::to_string(line) + " " + text + "\")";
}

inline Lines Probe(const std::string& url) {
  return {"CredRequest()", "SetURL(" + url + ")", "SetDefaultTimeout(10)", "Process(true, 0)",
          "~CredRequest()"};
}
inline Lines FailedProbe(const std::string& url) {
  return {"CredRequest()",
          "SetURL(" + url + ")",
          "SetDefaultTimeout(10)",
          "Process(true, 0)",
          "GetURL()",
          "GetError()",
          LogCall(53, "Cred Error:[" + url + "][7]"),
          "~CredRequest()"};
}

inline Lines SetAccount(const std::string& host, const std::string& account,
                        const std::string& password) {
  return {"VELACredItemSetHost(cred, " + host + ")",
          "VELACredItemSetRemoteAccount(cred, " + account + ")",
          "VELACredItemSetRemotePasswd(cred, " + password + ")"};
}
inline Lines SetPort(const std::string& protocol, int port) {
  return {"VELACredItemSetProtocol(cred, " + protocol + ")",
          "VELACredItemSetPort(cred, " + std::to_string(port) + ")"};
}

inline Lines Alloc() { return {"CredRequestMgr()", "VELACredAlloc()", "VELACredSessAlloc()"}; }

inline Lines Exchange(const std::string& arguments) {
  return {"Login(cred, session)",
          "CreateWebAPIRequest(cred, session, " + arguments + ")",
          "AddCredRequest(request)",
          "SetResponseTimeout(60)",
          "Run()",
          "GetResponse(0)"};
}

inline Lines ReleaseBeforeCreated() {
  return {"VELACredFree(cred)", "VELACredSessFree(session)", "~CredRequestMgr()"};
}
inline Lines ReleaseBeforeQueued() { return Joined({{"~CredRequest()"}, ReleaseBeforeCreated()}); }
/// The queue takes the request with it.
inline Lines Release() { return Joined({ReleaseBeforeCreated(), {"~CredRequest()"}}); }

/// Whether a line of the transcript is of a call that can be made to fail.
inline bool CanFail(const std::string& line) {
  for (const char* prefix : {"~", "maillog(", "syslog(", "geteuid(", "getegid(", "setresuid(",
                             "setresgid(", "VELACredFree(", "VELACredSessFree("}) {
    if (line.starts_with(prefix)) {
      return false;
    }
  }
  return true;
}

}  // namespace quillon::test
