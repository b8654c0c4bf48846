#include <sys/stat.h>

#include <filesystem>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <quillon/platform/configuration.h>

#include "support/temporary_folder.h"

namespace quillon::platform {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;

class ConfigurationFile : public testing::Test {
 protected:
  Configuration Load(const std::string& text) {
    return LoadConfiguration(folder_.Write("conf.toml", text));
  }

  std::string FailureOf(const std::string& text) {
    try {
      Load(text);
    } catch (const ConfigurationError& error) {
      return error.what();
    }
    return "no failure";
  }

  // The message of a failure at a line of the file.
  std::string At(int line, const std::string& rest) {
    return folder_ / "conf.toml" + ":" + std::to_string(line) + ": " + rest;
  }

  test::TemporaryFolder folder_;
};

TEST_F(ConfigurationFile, MayBeEmpty) {
  const Configuration configuration = Load("");

  EXPECT_EQ(configuration.accounts.passwd_file, "/etc/passwd");
  EXPECT_EQ(configuration.accounts.min_uid, 1000U);
  EXPECT_EQ(configuration.accounts.max_uid, 59999U);
  EXPECT_EQ(configuration.accounts.min_gid, 1000U);
  EXPECT_EQ(configuration.accounts.max_gid, 59999U);
  EXPECT_EQ(configuration.accounts.admin_group, "sudo");
  EXPECT_EQ(configuration.accounts.privileges_file, "/etc/quillon/app-privileges");
  EXPECT_EQ(configuration.maildir.domain, "local");
  EXPECT_EQ(configuration.maildir.usage_cache, "/var/lib/quillon/no-owner-usage.db");
  EXPECT_EQ(configuration.quota.store, "sqlite:///var/lib/quillon/quota.db");
  EXPECT_EQ(configuration.usage.key_template, "{name}/quota/storage");
  EXPECT_EQ(configuration.log.target, "syslog");
  EXPECT_TRUE(configuration.cluster.allow_http);
  EXPECT_EQ(configuration.cluster.ca_file, "");
  EXPECT_EQ(configuration.cluster.trusted_hosts, "/etc/quillon/trusted-hosts");
  EXPECT_EQ(configuration.cluster.max_answer, 16777216);
  EXPECT_EQ(configuration.web.http_port, 0);
  EXPECT_EQ(configuration.web.https_port, 5001);
  EXPECT_EQ(configuration.web.user, "quillon-web");
}

TEST_F(ConfigurationFile, SetsEveryKey) {
  const Configuration configuration = Load(R"(
[accounts]
passwd_file = "/a/passwd"
group_file = "/a/group"
min_uid = 0
max_uid = 4294967294
min_gid = 0
max_gid = 4294967294
admin_group = ""
privileges_file = "/a/privileges"
[maildir]
root = "/a/spool"
domain = "example.org"
usage_cache = "/a/cache.db"
[quota]
store = "postgresql://quota@db/quota"
busy_timeout = 3600
[usage]
host = "::1"
port = 65535
socket = "/a/redis.sock"
sentinels = []
sentinel_master = "mail"
sentinel_password = "hush"
password = "secret"
database = 3
connect_timeout = 1
command_timeout = 2
key_template = "usage:{name}"
[cluster]
allow_http = false
ca_file = "/a/ca.pem"
trusted_hosts = "/a/trusted-hosts"
max_answer = 1024
[web]
address = "::1"
http_port = 1
https_port = 2
certificate = "/a/cert.pem"
private_key = "/a/key.pem"
state_folder = "/a/webapid"
accounts_file = "/a/web-accounts"
user = "web"
handlers_folder = "/a/handlers"
workers = 3
max_body = 1024
max_header = 2048
max_connections = 4
max_connections_per_address = 5
request_timeout = 6
receive_timeout = 7
idle_timeout = 8
session_lifetime = 9
max_sessions_per_account = 10
max_login_failures = 11
[log]
target = "file"
file = "/a/log"
)");

  EXPECT_EQ(configuration.accounts.passwd_file, "/a/passwd");
  EXPECT_EQ(configuration.accounts.group_file, "/a/group");
  EXPECT_EQ(configuration.accounts.min_uid, 0U);
  EXPECT_EQ(configuration.accounts.max_uid, 4294967294U);
  EXPECT_EQ(configuration.accounts.min_gid, 0U);
  EXPECT_EQ(configuration.accounts.max_gid, 4294967294U);
  EXPECT_EQ(configuration.accounts.admin_group, "");
  EXPECT_EQ(configuration.accounts.privileges_file, "/a/privileges");
  EXPECT_EQ(configuration.maildir.root, "/a/spool");
  EXPECT_EQ(configuration.maildir.domain, "example.org");
  EXPECT_EQ(configuration.maildir.usage_cache, "/a/cache.db");
  EXPECT_EQ(configuration.quota.store, "postgresql://quota@db/quota");
  EXPECT_EQ(configuration.quota.busy_timeout, 3600);
  EXPECT_EQ(configuration.usage.host, "::1");
  EXPECT_EQ(configuration.usage.port, 65535);
  EXPECT_EQ(configuration.usage.socket, "/a/redis.sock");
  EXPECT_TRUE(configuration.usage.sentinels.empty());
  EXPECT_EQ(configuration.usage.sentinel_master, "mail");
  EXPECT_EQ(configuration.usage.sentinel_password, "hush");
  EXPECT_EQ(configuration.usage.password, "secret");
  EXPECT_EQ(configuration.usage.database, 3);
  EXPECT_EQ(configuration.usage.connect_timeout, 1);
  EXPECT_EQ(configuration.usage.command_timeout, 2);
  EXPECT_EQ(configuration.usage.key_template, "usage:{name}");
  EXPECT_FALSE(configuration.cluster.allow_http);
  EXPECT_EQ(configuration.cluster.ca_file, "/a/ca.pem");
  EXPECT_EQ(configuration.cluster.trusted_hosts, "/a/trusted-hosts");
  EXPECT_EQ(configuration.cluster.max_answer, 1024);
  EXPECT_EQ(configuration.web.address, "::1");
  EXPECT_EQ(configuration.web.http_port, 1);
  EXPECT_EQ(configuration.web.https_port, 2);
  EXPECT_EQ(configuration.web.certificate, "/a/cert.pem");
  EXPECT_EQ(configuration.web.private_key, "/a/key.pem");
  EXPECT_EQ(configuration.web.state_folder, "/a/webapid");
  EXPECT_EQ(configuration.web.accounts_file, "/a/web-accounts");
  EXPECT_EQ(configuration.web.user, "web");
  EXPECT_EQ(configuration.web.handlers_folder, "/a/handlers");
  EXPECT_EQ(configuration.web.workers, 3);
  EXPECT_EQ(configuration.web.max_body, 1024);
  EXPECT_EQ(configuration.web.max_header, 2048);
  EXPECT_EQ(configuration.web.max_connections, 4);
  EXPECT_EQ(configuration.web.max_connections_per_address, 5);
  EXPECT_EQ(configuration.web.request_timeout, 6);
  EXPECT_EQ(configuration.web.receive_timeout, 7);
  EXPECT_EQ(configuration.web.idle_timeout, 8);
  EXPECT_EQ(configuration.web.session_lifetime, 9);
  EXPECT_EQ(configuration.web.max_sessions_per_account, 10);
  EXPECT_EQ(configuration.web.max_login_failures, 11);
  EXPECT_EQ(configuration.log.target, "file");
  EXPECT_EQ(configuration.log.file, "/a/log");
}

TEST_F(ConfigurationFile, RefusesUnknownKeys) {
  EXPECT_EQ(FailureOf("\n[accounts]\npaswd_file = \"/a\"\n"),
            At(3, "accounts.paswd_file: unknown key"));
  EXPECT_EQ(FailureOf("[acounts]\n"), At(1, "acounts: unknown key"));
  EXPECT_EQ(FailureOf("passwd_file = \"/a\"\n"), At(1, "passwd_file: unknown key"));
  EXPECT_THAT(FailureOf("[cluster]\nallow_http = fals\n"), Not(HasSubstr("\n")));
  EXPECT_EQ(FailureOf("[log]\n\"tar\\nget\\u001b[2J\" = 1\n"),
            At(2, "log.tar\\nget\\x1b[2J: unknown key"));
}

TEST_F(ConfigurationFile, RefusesHalfACertificateAndAFrontThatIsRoot) {
  EXPECT_EQ(FailureOf("[web]\ncertificate = \"/a\"\n"),
            At(2, "web.certificate: a certificate and its private key are set together"));
  EXPECT_EQ(FailureOf("[web]\nprivate_key = \"/a\"\n"),
            At(2, "web.private_key: a certificate and its private key are set together"));
  EXPECT_EQ(FailureOf("[web]\nuser = \"root\"\n"),
            At(2, "web.user: must be the name of an account without rights"));
}

TEST_F(ConfigurationFile, NamesTheUsageStoreOrItsSentinels) {
  const std::string sentinels = "[usage]\nsentinels = [\"a:26379\", \"[::1]:26380\"]\n";
  EXPECT_THAT(Load(sentinels + "socket = \"\"\n").usage.sentinels,
              ElementsAre("a:26379", "[::1]:26380"));
  for (const char* setting : {"host = \"127.0.0.1\"", "port = 6379", "socket = \"/a\""}) {
    const std::string key(setting, std::string(setting).find(' '));
    EXPECT_EQ(FailureOf(sentinels + setting + "\n"),
              At(3, "usage." + key +
                        ": must not be set with usage.sentinels, which say where the server is"));
  }
}

TEST_F(ConfigurationFile, RefusesWrongTypes) {
  EXPECT_EQ(FailureOf("[accounts]\nmin_uid = \"1000\"\n"),
            At(2, "accounts.min_uid: must be a whole number"));
  EXPECT_EQ(FailureOf("[accounts]\nmin_uid = 10.5\n"),
            At(2, "accounts.min_uid: must be a whole number"));
  EXPECT_EQ(FailureOf("[maildir]\n\nroot = 5\n"), At(3, "maildir.root: must be a string"));
  EXPECT_EQ(FailureOf("[cluster]\nallow_http = 1\n"),
            At(2, "cluster.allow_http: must be true or false"));
  EXPECT_EQ(FailureOf("accounts = 5\n"), At(1, "accounts: must be a table"));
  EXPECT_EQ(FailureOf("[accounts]\npasswd_file.x = 5\n"),
            At(2, "accounts.passwd_file: must be a string"));
}

struct ImpossibleValue {
  const char* table;
  const char* setting;
  const char* problem;
};

class Impossible : public ConfigurationFile, public testing::WithParamInterface<ImpossibleValue> {};

TEST_P(Impossible, ValueIsRefused) {
  const auto [table, setting, problem] = GetParam();
  const std::string key = std::string(setting, std::string(setting).find(' '));
  EXPECT_EQ(FailureOf("[" + std::string(table) + "]\n" + setting + "\n"),
            At(2, std::string(table) + "." + key + ": " + problem));
}

constexpr char kNoPath[] = "must be an absolute path";
constexpr char kNoFolder[] = "must be the name of one folder";
constexpr char kNoStore[] = "must be sqlite:///ABSOLUTE/PATH or a postgresql:// URL";
constexpr char kNoSentinel[] = "must be HOST:PORT, or [ADDRESS]:PORT of IPv6";
constexpr char kNoTemplate[] = "must hold {name} exactly once";

INSTANTIATE_TEST_SUITE_P(
    ConfigurationFile, Impossible,
    testing::Values(
        ImpossibleValue{"accounts", "passwd_file = 'passwd'", kNoPath},
        ImpossibleValue{"cluster", "ca_file = 'ca.pem'", kNoPath},
        ImpossibleValue{"cluster", "trusted_hosts = ''", kNoPath},
        ImpossibleValue{"cluster", "max_answer = 1023", "must be from 1024 to 1073741824"},
        ImpossibleValue{"cluster", "max_answer = 1073741825", "must be from 1024 to 1073741824"},
        ImpossibleValue{"accounts", "group_file = ''", kNoPath},
        ImpossibleValue{"accounts", "min_uid = -1", "must be from 0 to 4294967294"},
        ImpossibleValue{"accounts", "max_uid = 4294967295", "must be from 0 to 4294967294"},
        ImpossibleValue{"accounts", "min_uid = 60000", "no uid is from 60000 to 59999"},
        ImpossibleValue{"accounts", "max_uid = 999", "no uid is from 1000 to 999"},
        ImpossibleValue{"accounts", "min_gid = -1", "must be from 0 to 4294967294"},
        ImpossibleValue{"accounts", "max_gid = 4294967295", "must be from 0 to 4294967294"},
        ImpossibleValue{"accounts", "min_gid = 60000", "no gid is from 60000 to 59999"},
        ImpossibleValue{"accounts", "max_gid = 999", "no gid is from 1000 to 999"},
        ImpossibleValue{"accounts", "admin_group = 27", "must be a string"},
        ImpossibleValue{"accounts", "privileges_file = 'privileges'", kNoPath},
        ImpossibleValue{"maildir", "root = 'spool'", kNoPath},
        ImpossibleValue{"maildir", "root = \"/a\\u0000b\"", "must not hold a NUL character"},
        ImpossibleValue{"maildir", "domain = ''", kNoFolder},
        ImpossibleValue{"maildir", "domain = '..'", kNoFolder},
        ImpossibleValue{"maildir", "domain = 'a/b'", kNoFolder},
        ImpossibleValue{"maildir", "usage_cache = 'cache.db'", kNoPath},
        ImpossibleValue{"maildir", "usage_cache = ''", kNoPath},
        ImpossibleValue{"quota", "store = 'sqlite://relative'", kNoStore},
        ImpossibleValue{"quota", "store = 'sqlite:///'", kNoStore},
        ImpossibleValue{"quota", "store = 'mysql://host'", kNoStore},
        ImpossibleValue{"quota", "busy_timeout = 0", "must be from 1 to 3600"},
        ImpossibleValue{"usage", "host = ''", "must not be empty"},
        ImpossibleValue{"usage", "port = 0", "must be from 1 to 65535"},
        ImpossibleValue{"usage", "port = 65536", "must be from 1 to 65535"},
        ImpossibleValue{"usage", "socket = 'redis.sock'", kNoPath},
        ImpossibleValue{"usage", "sentinels = 'a:1'", "must be an array of strings"},
        ImpossibleValue{"usage", "sentinels = [26379]", "must be a string"},
        ImpossibleValue{"usage", "sentinels = ['a:1', 'b']", kNoSentinel},
        ImpossibleValue{"usage", "sentinels = ['']", kNoSentinel},
        ImpossibleValue{"usage", "sentinels = [':26379']", kNoSentinel},
        ImpossibleValue{"usage", "sentinels = ['a:0']", kNoSentinel},
        ImpossibleValue{"usage", "sentinels = ['a:65536']", kNoSentinel},
        ImpossibleValue{"usage", "sentinels = ['a:1x']", kNoSentinel},
        ImpossibleValue{"usage", "sentinels = ['::1:26379']", kNoSentinel},
        ImpossibleValue{"usage", "sentinels = ['[::1]']", kNoSentinel},
        ImpossibleValue{"usage", "sentinels = ['[]:26379']", kNoSentinel},
        ImpossibleValue{"usage", "sentinels = ['[a]:26379']", kNoSentinel},
        ImpossibleValue{"usage", "sentinel_master = ''", "must not be empty"},
        ImpossibleValue{"usage", "database = -1", "must be from 0 to 2147483647"},
        ImpossibleValue{"usage", "connect_timeout = 3601", "must be from 1 to 3600"},
        ImpossibleValue{"usage", "command_timeout = 0", "must be from 1 to 3600"},
        ImpossibleValue{"usage", "key_template = 'storage'", kNoTemplate},
        ImpossibleValue{"usage", "key_template = '{name}{name}'", kNoTemplate},
        ImpossibleValue{"log", "target = 'journal'", "must be syslog, file or stderr"},
        ImpossibleValue{"log", "target = 'file'", "the target \"file\" needs log.file"},
        ImpossibleValue{"log", "file = 'mail.log'", kNoPath}));

TEST_F(ConfigurationFile, NamesTheLineOfASyntaxError) {
  EXPECT_THAT(FailureOf("[accounts]\nmin_uid = \n"), StartsWith(folder_ / "conf.toml" + ":2: "));
  EXPECT_THAT(FailureOf("[accounts\n"), StartsWith(folder_ / "conf.toml" + ":1: "));
  EXPECT_THAT(FailureOf(std::string("\0\xff\xfe", 3)), StartsWith(folder_ / "conf.toml" + ":1: "));
}

TEST_F(ConfigurationFile, MayBeLargeButNotVeryLarge) {
  const std::string comment = "#" + std::string(16 * 1024 - 2, 'x') + "\n";
  EXPECT_EQ(Load(comment).maildir.domain, "local");
  EXPECT_EQ(FailureOf(comment + "\n"), folder_ / "conf.toml" + ": is larger than 16 KiB");

  std::filesystem::resize_file(folder_ / "conf.toml", 1ULL << 40U);
  EXPECT_THROW(LoadConfiguration(folder_ / "conf.toml"), ConfigurationError);
}

// The parser would need more stack than there is.
TEST_F(ConfigurationFile, MayBeNothingButDots) {
  for (const std::size_t levels : {8000U, 100000U}) {
    std::string key = "a";
    for (std::size_t level = 1; level < levels; ++level) {
      key += ".a";
    }
    const std::string problem = levels == 8000 ? ":1: a: unknown key" : ": is larger than 16 KiB";
    for (const std::string& text :
         {key + "=1\n", "[" + key + "]\n", "[[" + key + "]]\n", "a={" + key.substr(2) + "=1}\n"}) {
      EXPECT_EQ(FailureOf(text), folder_ / "conf.toml" + problem) << text.substr(0, 4);
    }
  }
}

TEST_F(ConfigurationFile, IsNotReadFromAFifo) {
  ASSERT_EQ(::mkfifo((folder_ / "fifo").c_str(), 0600), 0);
  try {
    LoadConfiguration(folder_ / "fifo");
    FAIL();
  } catch (const ConfigurationError& error) {
    EXPECT_EQ(error.what(), folder_ / "fifo" + std::string(": is not a regular file"));
  }
}

TEST_F(ConfigurationFile, MustExistBeReadableAndAFile) {
  for (const std::string& path : {folder_ / "none.toml", folder_.path().string()}) {
    try {
      LoadConfiguration(path);
      FAIL() << path;
    } catch (const ConfigurationError& error) {
      EXPECT_THAT(error.what(), StartsWith(path + ": "));
    }
  }
}

TEST_F(ConfigurationFile, IsNotUsedWhenAnybodyMayWriteToIt) {
  const std::string path = folder_.Write("open.toml", "");
  ASSERT_EQ(::chmod(path.c_str(), 0666), 0);

  try {
    LoadConfiguration(path);
    FAIL();
  } catch (const ConfigurationError& error) {
    EXPECT_THAT(error.what(), HasSubstr("anybody may write"));
  }
}

TEST_F(ConfigurationFile, TakesEffectForWhatStartsAfterwards) {
  Configuration first;
  first.maildir.root = "/first";
  UseConfiguration(first);
  const auto kept = CurrentConfiguration();

  Configuration second;
  second.maildir.root = "/second";
  UseConfiguration(second);

  EXPECT_EQ(kept->maildir.root, "/first");
  EXPECT_EQ(CurrentConfiguration()->maildir.root, "/second");
}

}  // namespace
}  // namespace quillon::platform
