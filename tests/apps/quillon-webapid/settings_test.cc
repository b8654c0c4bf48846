#include "settings.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <exception>
#include <string>

#include <gtest/gtest.h>

namespace quillon::webapid {
namespace {

FrontSettings Settings() {
  FrontSettings settings;
  settings.web.max_body = 1;
  settings.web.max_header = 2;
  settings.web.max_connections = 3;
  settings.web.max_connections_per_address = 4;
  settings.web.request_timeout = 5;
  settings.web.receive_timeout = 6;
  settings.web.idle_timeout = 7;
  settings.web.session_lifetime = 8;
  settings.web.max_sessions_per_account = 9;
  settings.web.max_login_failures = 10;
  settings.uid = 65533;
  settings.gid = 65532;
  settings.has_log = true;
  settings.has_https = true;
  settings.certificate = "certificate";
  settings.private_key.Set(std::string("k\0ey", 4));
  settings.accounts.Set("accounts\n");
  return settings;
}

std::string TextOf(int file) {
  std::string text(static_cast<std::size_t>(::lseek(file, 0, SEEK_END)), '\0');
  EXPECT_EQ(::pread(file, text.data(), text.size(), 0), static_cast<ssize_t>(text.size()));
  return text;
}

platform::FileDescriptor FileOf(const std::string& text) {
  platform::FileDescriptor file(::memfd_create("test", MFD_CLOEXEC));
  EXPECT_EQ(::write(file.Get(), text.data(), text.size()), static_cast<ssize_t>(text.size()));
  return file;
}

TEST(SettingsTest, ArriveAsTheyWere) {
  const platform::FileDescriptor file = WriteSettings(Settings());
  for (int i = 0; i < 2; ++i) {  // the next front gets a file of its own, but none is used up
    const FrontSettings settings = ReadSettings(file.Get());
    EXPECT_EQ(settings.web.max_body, 1);
    EXPECT_EQ(settings.web.max_header, 2);
    EXPECT_EQ(settings.web.max_connections, 3);
    EXPECT_EQ(settings.web.max_connections_per_address, 4);
    EXPECT_EQ(settings.web.request_timeout, 5);
    EXPECT_EQ(settings.web.receive_timeout, 6);
    EXPECT_EQ(settings.web.idle_timeout, 7);
    EXPECT_EQ(settings.web.session_lifetime, 8);
    EXPECT_EQ(settings.web.max_sessions_per_account, 9);
    EXPECT_EQ(settings.web.max_login_failures, 10);
    EXPECT_EQ(settings.uid, 65533U);
    EXPECT_EQ(settings.gid, 65532U);
    EXPECT_TRUE(settings.has_log);
    EXPECT_FALSE(settings.has_http);
    EXPECT_TRUE(settings.has_https);
    EXPECT_EQ(settings.certificate, "certificate");
    EXPECT_EQ(settings.private_key.Get(), std::string("k\0ey", 4));
    EXPECT_EQ(settings.accounts.Get(), "accounts\n");
  }
}

TEST(SettingsTest, CannotBeChanged) {
  const platform::FileDescriptor file = WriteSettings(Settings());
  EXPECT_EQ(::pwrite(file.Get(), "x", 1, 0), -1);
  EXPECT_EQ(::ftruncate(file.Get(), 0), -1);
  EXPECT_EQ(::fcntl(file.Get(), F_GET_SEALS),
            F_SEAL_WRITE | F_SEAL_GROW | F_SEAL_SHRINK | F_SEAL_SEAL);
}

TEST(SettingsTest, ThatAreCutShortAreRefused) {
  const platform::FileDescriptor file = WriteSettings(Settings());
  const std::string whole = TextOf(file.Get());
  for (std::size_t size = 0; size < whole.size(); ++size) {
    const platform::FileDescriptor cut = FileOf(whole.substr(0, size));
    EXPECT_THROW(ReadSettings(cut.Get()), std::exception) << size;
  }
}

TEST(SettingsTest, ThatAreNoneAreRefused) {
  const platform::FileDescriptor file = FileOf(std::string(1000, '\xff'));
  EXPECT_THROW(ReadSettings(file.Get()), std::exception);
  EXPECT_THROW(ReadSettings(-1), std::exception);
}

}  // namespace
}  // namespace quillon::webapid
