#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <cstring>
#include <functional>
#include <limits>
#include <map>
#include <mutex>
#include <utility>
#include <vector>

#include <fmt/format.h>
#include <toml++/toml.h>

#include <quillon/platform/configuration.h>
#include <quillon/platform/printable.h>
#include <velamailserver/log_exception.h>

#include "conf/find_configuration.h"
#include "utils/file_text.h"
#include "utils/host_port.h"

namespace quillon::platform {

namespace {

constexpr char kSourceFile[] = "platform/linux/conf/configuration";
constexpr int kUnusableLine = 27;

// The parser recurses for every dot of a key, without a limit of its own: this one keeps a file of
// nothing but dots within the stack.
constexpr std::size_t kLargestFile = 16384;

std::string Position(const std::string& path, const toml::source_region& source) {
  return fmt::format("{}:{}", path, source.begin.line);
}

// One file being read: turns values of tables into settings, and whatever is wrong with one into an
// error that names its place.
class Reader {
 public:
  explicit Reader(std::string path) : path_(std::move(path)) {}

  // What may be set from a value, by key.
  using Setters = std::map<std::string, std::function<void(const toml::node&)>, std::less<>>;

  // Hands every value of a table to its setter.
  void ReadTable(const std::string& prefix, const toml::table& table, const Setters& setters) {
    for (const auto& [key, node] : table) {
      key_ = prefix + Printable(key.str());  // within quotes it may hold anything
      const auto setter = setters.find(key.str());
      if (setter == setters.end()) {
        Fail(node, "unknown key");
      }
      setter->second(node);
    }
  }

  const toml::table& Table(const toml::node& node) const {
    if (const toml::table* table = node.as_table()) {
      return *table;
    }
    Fail(node, "must be a table");
  }

  auto Text(std::string& setting,
            std::function<const char*(const std::string&)> objection = nullptr) const {
    return [this, &setting, objection = std::move(objection)](const toml::node& node) {
      const auto* value = node.as_string();
      if (value == nullptr) {
        Fail(node, "must be a string");
      }
      if (value->get().find('\0') != std::string::npos) {
        Fail(node, "must not hold a NUL character");
      }
      if (const char* problem = objection ? objection(value->get()) : nullptr) {
        Fail(node, problem);
      }
      setting = value->get();
    };
  }

  auto Texts(std::vector<std::string>& setting,
             std::function<const char*(const std::string&)> objection) const {
    return [this, &setting, objection = std::move(objection)](const toml::node& node) {
      const toml::array* values = node.as_array();
      if (values == nullptr) {
        Fail(node, "must be an array of strings");
      }
      setting.resize(values->size());
      for (std::size_t i = 0; i < setting.size(); ++i) {
        Text(setting[i], objection)((*values)[i]);
      }
    };
  }

  template <typename Integer>
  auto Number(Integer& setting, std::int64_t lowest, std::int64_t highest) const {
    return [this, &setting, lowest, highest](const toml::node& node) {
      const auto* value = node.as_integer();
      if (value == nullptr) {
        Fail(node, "must be a whole number");
      }
      if (value->get() < lowest || value->get() > highest) {
        Fail(node, fmt::format("must be from {} to {}", lowest, highest));
      }
      setting = static_cast<Integer>(value->get());
    };
  }

  auto Truth(bool& setting) const {
    return [this, &setting](const toml::node& node) {
      const auto* value = node.as_boolean();
      if (value == nullptr) {
        Fail(node, "must be true or false");
      }
      setting = value->get();
    };
  }

  [[noreturn]] void Fail(const toml::node& node, const std::string& problem) const {
    throw ConfigurationError(
        fmt::format("{}: {}: {}", Position(path_, node.source()), key_, problem));
  }

 private:
  std::string path_;
  std::string key_;  // of the value that is being read
};

const char* ObjectToPath(const std::string& path) {
  return path.starts_with('/') ? nullptr : "must be an absolute path";
}

const char* ObjectToOptionalPath(const std::string& path) {
  return path.empty() ? nullptr : ObjectToPath(path);
}

const char* ObjectToFolderName(const std::string& name) {
  return name.empty() || name == "." || name == ".." || name.find('/') != std::string::npos
             ? "must be the name of one folder"
             : nullptr;
}

constexpr std::string_view kSqliteFile = "sqlite:///";  // the last slash is the path's

const char* ObjectToStore(const std::string& url) {
  return (url.starts_with(kSqliteFile) && url.size() > kSqliteFile.size()) ||
                 url.starts_with("postgresql://")
             ? nullptr
             : "must be sqlite:///ABSOLUTE/PATH or a postgresql:// URL";
}

const char* ObjectToEmpty(const std::string& text) {
  return text.empty() ? "must not be empty" : nullptr;
}

const char* ObjectToSentinel(const std::string& text) {
  return ParseHostPort(text) ? nullptr : "must be HOST:PORT, or [ADDRESS]:PORT of IPv6";
}

const char* ObjectToUser(const std::string& name) {
  return name.empty() || name == "root" ? "must be the name of an account without rights" : nullptr;
}

const char* ObjectToKeyTemplate(const std::string& text) {
  constexpr char kName[] = "{name}";
  const auto at = text.find(kName);
  return at == std::string::npos || text.find(kName, at + 1) != std::string::npos
             ? "must hold {name} exactly once"
             : nullptr;
}

const char* ObjectToLogTarget(const std::string& target) {
  return target == "syslog" || target == "file" || target == "stderr"
             ? nullptr
             : "must be syslog, file or stderr";
}

// Whoever may write to the configuration may choose what root reads and deletes.
std::string ReadTrustedText(const std::string& path) {
  FileText file;
  try {
    file = ReadFileText(path, kLargestFile);
  } catch (const FileError& error) {
    throw ConfigurationError(error.what());
  }
  if ((file.status.st_mode & S_IWOTH) != 0) {
    throw ConfigurationError(path +
                             ": anybody may write to this file, it is not used (chmod o-w it)");
  }
  return std::move(file.text);
}

toml::table Parse(const std::string& path, const std::string& text) {
  try {
    return toml::parse(text, path);
  } catch (const toml::parse_error& error) {
    throw ConfigurationError(
        fmt::format("{}: {}", Position(path, error.source()), Printable(error.description())));
  }
}

Configuration Read(const std::string& path, const toml::table& document) {
  constexpr std::int64_t kHighestId = std::numeric_limits<std::uint32_t>::max() - 1;
  constexpr int kLongestTimeout = 3600;
  constexpr std::int64_t kLargestBody = 67108864;
  constexpr std::int64_t kLargestAnswer = 1073741824;

  Configuration c;
  Reader r(path);
  const auto table = [&r](const std::string& name, const Reader::Setters& setters) {
    return [&r, name, setters](const toml::node& node) {
      r.ReadTable(name + ".", r.Table(node), setters);
    };
  };
  r.ReadTable(
      "", document,
      {{"accounts",
        table("accounts", {{"passwd_file", r.Text(c.accounts.passwd_file, ObjectToPath)},
                           {"group_file", r.Text(c.accounts.group_file, ObjectToPath)},
                           {"min_uid", r.Number(c.accounts.min_uid, 0, kHighestId)},
                           {"max_uid", r.Number(c.accounts.max_uid, 0, kHighestId)},
                           {"min_gid", r.Number(c.accounts.min_gid, 0, kHighestId)},
                           {"max_gid", r.Number(c.accounts.max_gid, 0, kHighestId)},
                           {"admin_group", r.Text(c.accounts.admin_group)},
                           {"privileges_file", r.Text(c.accounts.privileges_file, ObjectToPath)}})},
       {"maildir",
        table("maildir", {{"root", r.Text(c.maildir.root, ObjectToPath)},
                          {"domain", r.Text(c.maildir.domain, ObjectToFolderName)},
                          {"usage_cache", r.Text(c.maildir.usage_cache, ObjectToPath)}})},
       {"quota",
        table("quota",
              {{"store", r.Text(c.quota.store, ObjectToStore)},
               {"busy_timeout", r.Number(c.quota.busy_timeout, 1, kLongestTimeout)},
               {"warning_message", r.Text(c.quota.warning_message, ObjectToOptionalPath)}})},
       {"usage",
        table("usage",
              {{"host", r.Text(c.usage.host, ObjectToEmpty)},
               {"port", r.Number(c.usage.port, 1, 65535)},
               {"socket", r.Text(c.usage.socket, ObjectToOptionalPath)},
               {"sentinels", r.Texts(c.usage.sentinels, ObjectToSentinel)},
               {"sentinel_master", r.Text(c.usage.sentinel_master, ObjectToEmpty)},
               {"sentinel_password", r.Text(c.usage.sentinel_password)},
               {"password", r.Text(c.usage.password)},
               {"database", r.Number(c.usage.database, 0, std::numeric_limits<int>::max())},
               {"connect_timeout", r.Number(c.usage.connect_timeout, 1, kLongestTimeout)},
               {"command_timeout", r.Number(c.usage.command_timeout, 1, kLongestTimeout)},
               {"key_template", r.Text(c.usage.key_template, ObjectToKeyTemplate)}})},
       {"cluster",
        table("cluster", {{"allow_http", r.Truth(c.cluster.allow_http)},
                          {"ca_file", r.Text(c.cluster.ca_file, ObjectToOptionalPath)},
                          {"trusted_hosts", r.Text(c.cluster.trusted_hosts, ObjectToPath)},
                          {"max_answer", r.Number(c.cluster.max_answer, 1024, kLargestAnswer)}})},
       {"web",
        table("web",
              {{"address", r.Text(c.web.address)},
               {"http_port", r.Number(c.web.http_port, 0, 65535)},
               {"https_port", r.Number(c.web.https_port, 0, 65535)},
               {"certificate", r.Text(c.web.certificate, ObjectToOptionalPath)},
               {"private_key", r.Text(c.web.private_key, ObjectToOptionalPath)},
               {"state_folder", r.Text(c.web.state_folder, ObjectToPath)},
               {"accounts_file", r.Text(c.web.accounts_file, ObjectToPath)},
               {"user", r.Text(c.web.user, ObjectToUser)},
               {"handlers_folder", r.Text(c.web.handlers_folder, ObjectToOptionalPath)},
               {"workers", r.Number(c.web.workers, 1, 64)},
               {"max_body", r.Number(c.web.max_body, 1024, kLargestBody)},
               {"max_header", r.Number(c.web.max_header, 1024, 1048576)},
               {"max_connections", r.Number(c.web.max_connections, 1, 100000)},
               {"max_connections_per_address",
                r.Number(c.web.max_connections_per_address, 1, 100000)},
               {"request_timeout", r.Number(c.web.request_timeout, 1, kLongestTimeout)},
               {"receive_timeout", r.Number(c.web.receive_timeout, 1, kLongestTimeout)},
               {"idle_timeout", r.Number(c.web.idle_timeout, 1, kLongestTimeout)},
               {"session_lifetime", r.Number(c.web.session_lifetime, 1, 86400)},
               {"max_sessions_per_account", r.Number(c.web.max_sessions_per_account, 1, 1000)},
               {"max_login_failures", r.Number(c.web.max_login_failures, 1, 1000)}})},
       {"log", table("log", {{"target", r.Text(c.log.target, ObjectToLogTarget)},
                             {"file", r.Text(c.log.file, ObjectToOptionalPath)}})}});

  // What no single value can be blamed for is reported at the one that the file sets.
  const auto reject = [&](const char* table_name, const char* key, const std::string& problem) {
    const auto node = document[table_name][key];
    const std::string place = node ? Position(path, node.node()->source()) : path;
    throw ConfigurationError(fmt::format("{}: {}.{}: {}", place, table_name, key, problem));
  };
  const auto require_range = [&](const std::string& id, std::uint32_t lowest,
                                 std::uint32_t highest) {
    if (lowest > highest) {
      const std::string min_key = "min_" + id;
      const std::string max_key = "max_" + id;
      const bool is_min_set = static_cast<bool>(document["accounts"][min_key]);
      reject("accounts", (is_min_set ? min_key : max_key).c_str(),
             fmt::format("no {} is from {} to {}", id, lowest, highest));
    }
  };
  require_range("uid", c.accounts.min_uid, c.accounts.max_uid);
  require_range("gid", c.accounts.min_gid, c.accounts.max_gid);
  for (const char* key : {"host", "port", "socket"}) {
    const bool is_set = document["usage"][key] && document["usage"][key] != "";
    if (is_set && !c.usage.sentinels.empty()) {
      reject("usage", key, "must not be set with usage.sentinels, which say where the server is");
    }
  }
  if (c.log.target == "file" && c.log.file.empty()) {
    reject("log", "target", "the target \"file\" needs log.file");
  }
  if (c.web.certificate.empty() != c.web.private_key.empty()) {
    reject("web", c.web.certificate.empty() ? "private_key" : "certificate",
           "a certificate and its private key are set together");
  }
  return c;
}

std::mutex current_mutex;
std::shared_ptr<const Configuration> current;

}  // namespace

std::string Configuration::Quota::SqliteFile() const {
  return store.starts_with(kSqliteFile) ? store.substr(kSqliteFile.size() - 1) : "";
}

Configuration LoadConfiguration(const std::string& path) {
  return Read(path, Parse(path, ReadTrustedText(path)));
}

void UseConfiguration(Configuration configuration) {
  auto next = std::make_shared<const Configuration>(std::move(configuration));
  const std::lock_guard lock(current_mutex);
  current.swap(next);
}

std::shared_ptr<const Configuration> FindConfiguration() {
  const std::lock_guard lock(current_mutex);
  if (!current) {
    const bool exists = ::access(kDefaultConfigurationFile, F_OK) == 0 || errno != ENOENT;
    current = std::make_shared<const Configuration>(
        exists ? LoadConfiguration(kDefaultConfigurationFile) : Configuration());
  }
  return current;
}

std::shared_ptr<const Configuration> CurrentConfiguration() {
  try {
    return FindConfiguration();
  } catch (const ConfigurationError& error) {
    throw velamailserver::LogException(velamailserver::ERR_LOAD_SMTP_SETTINGS, error.what(), 3,
                                       kSourceFile, kUnusableLine);
  }
}

}  // namespace quillon::platform
