#include "system/world.h"

#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <memory>
#include <stdexcept>
#include <system_error>

#include <fmt/format.h>
#include <fmt/ranges.h>
#include <json/reader.h>

#include <quillon/platform/configuration.h>
#include <velamailserver/account/mailbox_quota.h>
#include <velamailserver/velasdk/vela_user.h>

namespace quillon::test {

World::World() {
  UseStore("sqlite://" + quota_database());
  AddGroup("users", kUsers);
  AddAccount("alice", 1001);
  AddAccount("bob", 1002);
  AddAccount("carol", 1003);
}

void World::UseStore(const std::string& url) {
  folder_.Write("mailserver.toml", fmt::format(R"([accounts]
passwd_file = "{0}/passwd"
group_file = "{0}/group"
min_gid = 100
admin_group = "admins"
privileges_file = "{0}/app-privileges"
[maildir]
root = "{0}/spool"
usage_cache = "{0}/usage-cache.db"
[quota]
store = "{2}"
busy_timeout = 1
[usage]
socket = "{1}"
connect_timeout = 1
command_timeout = 1
[log]
target = "file"
file = "{0}/mail.log"
)",
                                               folder_.path().string(), redis_.socket(), url));
  platform::UseConfiguration(platform::LoadConfiguration(configuration_file()));
}

void World::AddAccount(const std::string& name, unsigned int uid, unsigned int gid) {
  passwd_ += fmt::format("{}:x:{}:{}::/nonexistent:/usr/sbin/nologin\n", name, uid, gid);
  folder_.Write("passwd", passwd_);
}

void World::AddGroup(const std::string& name, unsigned int gid,
                     const std::vector<std::string>& members) {
  group_ += fmt::format("{}:x:{}:{}\n", name, gid, fmt::join(members, ","));
  folder_.Write("group", group_);
}

void World::SetUsage(const std::string& name, const std::string& bytes) const {
  redis_.Command({"SET", name + "/quota/storage", bytes});
}

void World::SetWarning(const std::string& name, unsigned long long bytes) const {
  velamailserver::account::MailboxQuota().SetUserQuotaWarning(
      {velamailserver::velasdk::VelaUser(name)}, bytes);
}

void World::Deliver(const std::string& account, const std::string& folder, std::size_t size) {
  const std::string maildir = "spool/local/" + account + "/";
  for (const char* part : {"cur", "new", "tmp"}) {
    std::filesystem::create_directories(folder_ / (maildir + part));
  }
  folder_.Write(fmt::format("{}{}/{}.M1P1.host", maildir, folder, ++messages_),
                std::string(size, 'x'));
}

std::string World::Maildir(const std::string& account) const {
  return folder_ / ("spool/local/" + account);
}

std::string World::Image(const std::string& account) const {
  return Run({"sh", "-c",
              "cd \"$1\" && find . -printf '%p %y %m %U:%G %s %T@ %i\\n' | sort &&"
              " find . -type f -exec sha256sum {} + | sort",
              "sh", Maildir(account)})
      .output;
}

void World::Give(const std::string& account, unsigned int uid) const {
  const auto give = [uid](const std::filesystem::path& path) {
    if (::lchown(path.c_str(), uid, static_cast<gid_t>(-1)) != 0) {
      throw std::system_error(errno, std::generic_category(), path);
    }
  };
  give(Maildir(account));
  for (const auto& entry : std::filesystem::recursive_directory_iterator(Maildir(account))) {
    give(entry.path());
  }
}

std::vector<std::string> World::CommandLine(const std::vector<std::string>& arguments) const {
  std::vector<std::string> command = {QuillonctlPath(), "--config", configuration_file()};
  command.insert(command.end(), arguments.begin(), arguments.end());
  return command;
}

Outcome World::Quillonctl(const std::vector<std::string>& arguments, const std::string& input,
                          const std::vector<std::string>& environment) const {
  return Run(CommandLine(arguments), input, environment);
}

Json::Value World::QuillonctlJson(std::vector<std::string> arguments) const {
  arguments.push_back("--json");
  const Outcome outcome = Quillonctl(arguments);
  const std::unique_ptr<Json::CharReader> reader([]() -> Json::CharReader* {
    Json::CharReaderBuilder builder;
    Json::CharReaderBuilder::strictMode(&builder.settings_);
    return builder.newCharReader();
  }());
  Json::Value document;
  std::string errors;
  const char* const begin = outcome.output.data();
  if (outcome.exit_code != 0 || !outcome.error.empty() ||
      !reader->parse(begin, begin + outcome.output.size(), &document, &errors)) {
    throw std::runtime_error(
        fmt::format("exit code {}: {}{}", outcome.exit_code, outcome.error, errors));
  }
  return document;
}

std::string QuillonctlPath() { return QUILLONCTL; }

std::string PlatformLibraryPath() { return PLATFORM_LIBRARY; }

std::vector<std::string> Column(const Json::Value& report, const char* member) {
  std::vector<std::string> values;
  const char* const list = report.isMember("groups") ? "groups" : "users";
  for (const Json::Value& entry : report[list]) {
    values.push_back(entry[member].isNull() ? "null" : entry[member].asString());
  }
  return values;
}

}  // namespace quillon::test
