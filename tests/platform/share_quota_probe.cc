// Tells what the library and the host's API say of quotas, where neither a test framework nor the
// rest of this system is at hand:
//   share_quota_probe MAILDIR_ROOT STEP...
// A step is one of these; each but the last two writes one line.
//   user=NAME    megabytes of the user, or "error CODE"
//   group=NAME   megabytes of the group, or "error CODE"
//   api=JSON     the answer to these parameters
//   euid=NUMBER  goes on with this effective uid
//   run=COMMAND  runs it, while this process goes on living
#include <sys/prctl.h>
#include <unistd.h>

#include <cstdlib>
#include <exception>
#include <iostream>
#include <sstream>
#include <stdexcept>
#include <string>

#include <json/reader.h>
#include <json/writer.h>

#include <quillon/platform/configuration.h>
#include <vela/api_runner.h>
#include <velamailserver/log_exception.h>
#include <velamailserver/share_quota.h>

namespace {

namespace tarn = velamailserver::webapi::tarn;

void UseRoot(const std::string& root) {
  quillon::platform::Configuration configuration;
  configuration.maildir.root = root;
  configuration.accounts.admin_group = "";
  configuration.log.target = "stderr";
  quillon::platform::UseConfiguration(configuration);
}

std::string Megabytes(unsigned long long (*quota)(const std::string&), const std::string& name) {
  try {
    return std::to_string(quota(name));
  } catch (const velamailserver::LogException& error) {
    return "error " + std::to_string(error.code());
  }
}

std::string Answer(const std::string& text) {
  Json::Value params;
  std::istringstream(text) >> params;
  Json::Value response;
  VELA::APIRunner::Exec(response, "VELA.Core.Quota", 1, "get", params, "admin");
  Json::StreamWriterBuilder builder;
  builder["indentation"] = "";
  return Json::writeString(builder, response);
}

void Take(const std::string& step) {
  const auto equals = step.find('=');
  const std::string kind = step.substr(0, equals);
  const std::string value = equals == std::string::npos ? "" : step.substr(equals + 1);
  if (kind == "user") {
    std::cout << Megabytes(tarn::GetUserQuillonSharedFolderQuotaMb, value) << std::endl;
  } else if (kind == "group") {
    std::cout << Megabytes(tarn::GetGroupQuillonSharedFolderQuotaMb, value) << std::endl;
  } else if (kind == "api") {
    std::cout << Answer(value) << std::endl;
  } else if (kind == "euid") {
    if (::seteuid(static_cast<uid_t>(std::stoul(value))) != 0) {
      throw std::runtime_error("cannot become " + value);
    }
    ::prctl(PR_SET_DUMPABLE, 1);  // lost with the uid, and the leak check at root's exit needs it
  } else if (kind == "run") {
    if (std::system(value.c_str()) != 0) {
      throw std::runtime_error("failed: " + value);
    }
  } else {
    throw std::runtime_error("no such step: " + step);
  }
}

}  // namespace

int main(int argc, char** argv) {
  try {
    if (argc < 3) {
      throw std::runtime_error("usage: share_quota_probe MAILDIR_ROOT STEP...");
    }
    UseRoot(argv[1]);
    for (int i = 2; i < argc; ++i) {
      Take(argv[i]);
    }
  } catch (const std::exception& error) {
    std::cerr << "share_quota_probe: " << error.what() << '\n';
    return 1;
  }
}
