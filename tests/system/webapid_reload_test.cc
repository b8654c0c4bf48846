// What an administrator does to a server that runs, and what the documentation tells its clients.
#include <openssl/pem.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <csignal>
#include <fstream>
#include <iterator>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include <fmt/format.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "support/certificate.h"
#include "support/program.h"
#include "support/temporary_folder.h"
#include "system/web_server.h"

namespace quillon::test {
namespace {

using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::SizeIs;
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
  server.folder().Write("mailserver.toml", good + "user = \"root\"\n");
  ::kill(server.program().pid(), SIGHUP);
  EXPECT_TRUE(Eventually([&] { return Count(server.Log(), "not reloaded: ") == 2; }));
  EXPECT_EQ(server.Call(token, kNames).status, 200);
  // A front that is started now has the former one.
  ::kill(server.Children(kWebFront).at(0), SIGKILL);
  EXPECT_TRUE(Eventually([&] { return server.Get("/").status == 200; }));
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
  const std::string good = server.folder().Read("mailserver.toml");
  server.folder().Write("mailserver.toml", good + "nonsense\n");  // no worker starts with it
  ::kill(server.Children(kWebWorker).at(0), SIGKILL);
  std::this_thread::sleep_for(3s);
  const int ends = Count(server.Log(), " a worker ended with status 1");
  EXPECT_GE(ends, 2);
  EXPECT_LE(ends, 6);
  EXPECT_EQ(server.Get("/").status, 200);
  server.folder().Write("mailserver.toml", good);
  EXPECT_EQ(server.Call(token, kNames).status, 200);
}

// The commands of the documentation that begin like that, with what follows after a backslash.
std::vector<std::string> DocumentedCommands(const std::string& begin) {
  std::ifstream file(WEBAPI_DOCUMENT);
  std::vector<std::string> commands;
  std::string line;
  while (std::getline(file, line)) {
    if (!line.starts_with(begin)) {
      continue;
    }
    std::string command = line;
    while (command.ends_with('\\') && std::getline(file, line)) {
      command += "\n" + line;
    }
    commands.push_back(command);
  }
  return commands;
}

std::string Replace(std::string text, const std::string& what, const std::string& with) {
  const std::size_t at = text.find(what);
  EXPECT_NE(at, std::string::npos) << what << " is not in " << text;
  return at == std::string::npos ? text : text.replace(at, what.size(), with);
}

TEST(WebapidDocumentTest, HasCommandsThatWork) {
  WebServer server;
  std::array<char, 256> host{};
  ASSERT_EQ(::gethostname(host.data(), host.size() - 1), 0);
  const TemporaryFolder folder;
  folder.Write("host.pem", server.folder().Read("state/certificate.pem"));
  folder.Write("quotas.csv", "alice,4096,2048\n");
  // The name must be this host's, the port is the test's.
  folder.Write(".curlrc",
               fmt::format("silent\nnoproxy = \"*\"\nconnect-to = \"{0}:5001:127.0.0.1:{1}\"\n",
                           host.data(), server.https_port()));
  const auto run = [&](const std::string& command) {
    return test::Run({"sh", "-c",
                      "cd " + folder.path().string() + " && " +
                          Replace(command, "HOST:5001", host.data() + std::string(":5001"))},
                     "", {"TOKEN=" + server.Token("boss"), "CURL_HOME=" + folder.path().string()});
  };
  const auto commands = DocumentedCommands("curl ");
  ASSERT_THAT(commands, SizeIs(2));
  const Outcome call = run(commands[0]);
  EXPECT_EQ(call.output, R"({"data":{"names":["alice"]},"success":true})") << call.error;
  std::string upload = Replace(commands[1], R"("api":"…")", R"("api":"Quillon.MailServer.Quota")");
  upload = Replace(upload, R"("method":"…")", R"("method":"import")");
  const Outcome uploaded = run(Replace(upload, "KEY=@FILE", "file=@quotas.csv"));
  EXPECT_THAT(uploaded.output, HasSubstr(R"("success":true)")) << uploaded.error;
}

}  // namespace
}  // namespace quillon::test
