// What an administrator does to a server that runs.
#include <openssl/pem.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include <fmt/format.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "support/certificate.h"
#include "support/temporary_folder.h"
#include "system/web_server.h"

namespace quillon::test {
namespace {

using testing::HasSubstr;
using testing::Not;
using namespace std::chrono_literals;

int Count(const std::string& text, const std::string& what) {
  int count = 0;
  for (std::size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + 1)) {
    ++count;
  }
  return count;
}

// Both files of a new certificate.
void WriteCertificate(const TemporaryFolder& folder) {
  const Certificate made = MakeCertificate("DNS:localhost");
  folder.Write("certificate.pem", made.Pem());
  folder.Write("key.pem", made.KeyPem());
}

std::string Configured(const TemporaryFolder& folder) {
  return fmt::format("certificate = \"{0}/certificate.pem\"\nprivate_key = \"{0}/key.pem\"",
                     folder.path().string());
}

std::string CertificateOf(const WebServer& server) {
  return server.Post({kNames}, true).certificate;
}

TEST(WebapidReloadTest, ReadsAConfiguredCertificateAgain) {
  const TemporaryFolder folder;
  WriteCertificate(folder);
  WebServer server(Configured(folder));
  const std::string former = CertificateOf(server);
  ASSERT_THAT(former, HasSubstr(folder.Read("certificate.pem")));
  WriteCertificate(folder);
  ::kill(server.program().pid(), SIGHUP);
  EXPECT_TRUE(Eventually([&] { return CertificateOf(server) != former; }));
  EXPECT_THAT(CertificateOf(server), HasSubstr(folder.Read("certificate.pem")));
}

TEST(WebapidReloadTest, KeepsItsCertificateWhenTheNewOneIsBad) {
  const TemporaryFolder folder;
  WriteCertificate(folder);
  WebServer server(Configured(folder));
  const std::string former = CertificateOf(server);
  folder.Write("key.pem", MakeCertificate("DNS:localhost").KeyPem());
  ::kill(server.program().pid(), SIGHUP);
  EXPECT_TRUE(Eventually([&] { return Count(server.Log(), "not reloaded: ") == 1; }));
  EXPECT_EQ(CertificateOf(server), former);
  folder.Write("certificate.pem", "nonsense");
  ::kill(server.program().pid(), SIGHUP);
  EXPECT_TRUE(Eventually([&] { return Count(server.Log(), "not reloaded: ") == 2; }));
  EXPECT_EQ(CertificateOf(server), former);
  EXPECT_THAT(server.Log(), Not(HasSubstr(" reloaded\n")));
}

TEST(WebapidReloadTest, DoesNotStartWithTheKeyOfAnotherCertificate) {
  const TemporaryFolder folder;
  WriteCertificate(folder);
  folder.Write("key.pem", MakeCertificate("DNS:localhost").KeyPem());
  EXPECT_THROW(WebServer{Configured(folder)}, std::runtime_error);
}

TEST(WebapidReloadTest, KeepsItsConfigurationWhenTheNewOneIsBad) {
  WebServer server;
  const std::string token = server.Token("boss");
  const std::string good = server.folder().Read("mailserver.toml");
  // One that does not parse, and one that does and cannot be used.
  server.folder().Write("mailserver.toml", good + "nonsense\n");
  ::kill(server.program().pid(), SIGHUP);
  EXPECT_TRUE(Eventually([&] { return Count(server.Log(), "not reloaded: ") == 1; }));
  EXPECT_EQ(server.Call(token, kNames).status, 200);
  std::string unusable = good;
  unusable.replace(unusable.find("nobody"), std::strlen("nobody"), "root");
  server.folder().Write("mailserver.toml", unusable);
  ::kill(server.program().pid(), SIGHUP);
  EXPECT_TRUE(Eventually([&] { return Count(server.Log(), "not reloaded: ") == 2; }));
  EXPECT_EQ(server.Call(token, kNames).status, 200);
  // Workers and a front that are started now have the former one.
  const std::vector<pid_t> workers = server.Children(kWebWorker);
  for (const pid_t worker : workers) {
    ::kill(worker, SIGKILL);
  }
  EXPECT_TRUE(Eventually([&] { return server.Call(token, kNames).status == 200; }));
  ::kill(server.Children(kWebFront).at(0), SIGKILL);
  EXPECT_TRUE(Eventually([&] { return server.Get("/").status == 200; }));
  const std::string anew = server.Token("boss");
  EXPECT_TRUE(Eventually([&] { return server.Call(anew, kNames).status == 200; }));
}

TEST(WebapidReloadTest, AppliesNewLimits) {
  WebServer server;
  const std::string token = server.Token("boss");
  const std::string large = kNames + std::string(5000, ' ');
  ASSERT_EQ(server.Call(token, large).status, 200);
  server.folder().Write("mailserver.toml",
                        server.folder().Read("mailserver.toml") + "max_body = 4000\n");
  ::kill(server.program().pid(), SIGHUP);
  EXPECT_TRUE(Eventually([&] { return server.Call(token, large).status == 413; }));
}

TEST(WebapidReloadTest, StartsAWorkerThatDiesAtOnceLaterAndLater) {
  WebServer server("workers = 1");
  const std::string token = server.Token("boss");
  ASSERT_EQ(server.Call(token, kNames).status, 200);
  for (const auto end = std::chrono::steady_clock::now() + 3s;
       std::chrono::steady_clock::now() < end;) {
    for (const pid_t worker : server.Children(kWebWorker)) {
      ::kill(worker, SIGKILL);
    }
    std::this_thread::sleep_for(5ms);
  }
  const int ends = Count(server.Log(), " a worker ended");
  EXPECT_GE(ends, 2);
  EXPECT_LE(ends, 7);
  EXPECT_EQ(server.Get("/").status, 200);
  EXPECT_TRUE(Eventually([&] { return server.Call(token, kNames).status == 200; }));
}

}  // namespace
}  // namespace quillon::test
