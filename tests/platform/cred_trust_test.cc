#include <curl/curl.h>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <quillon/platform/file_descriptor.h>
#include <quillon/platform/host_trust.h>
#include <vela/cred.h>

#include "platform/cred_fixture.h"
#include "support/as_nobody.h"
#include "support/certificate.h"
#include "support/own_process.h"
#include "support/scripted_server.h"

namespace quillon::platform {
namespace {

using test::AnswerAlways;
using test::Certificate;
using test::MakeAuthority;
using test::MakeCertificate;
using test::ScriptedServer;
using testing::AllOf;
using testing::HasSubstr;

constexpr char kKey[] = "sha256//AAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAA=";
constexpr char kOtherKey[] = "sha256//AQAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAA=";

class HostProof : public CredTest {
 protected:
  HostProof() {
    configuration_.cluster.ca_file = folder_.Write("ca.pem", authority_.Pem());
    Use();
  }

  static int Probe(const std::string& url) {
    VELA::CredRequest request;
    EXPECT_TRUE(request.SetURL(url));
    request.SetDefaultTimeout(10);
    // That the caller does not want the proof makes no difference.
    const bool is_answered = request.Process(false, 0);
    EXPECT_EQ(is_answered, request.GetError() == 0);
    return request.GetError();
  }

  // The result, for a server with a certificate that counts the requests which reached it.
  int ProbeWith(const Certificate& certificate, const ScriptedServer::TlsSetup& setup = nullptr) {
    requests_ = 0;
    const ScriptedServer server(
        [this](test::Conversation& client) {
          while (client.Next()) {
            ++requests_;
            client.Answer("{}");
          }
        },
        &certificate, setup);
    return Probe(server.URL());
  }

  const Certificate authority_ = MakeAuthority();
  const Certificate good_ = MakeCertificate("IP:127.0.0.1", &authority_);
  std::atomic<int> requests_ = 0;
};

TEST_F(HostProof, IsACertificateOfTheAuthority) { EXPECT_EQ(ProbeWith(good_), 0); }

TEST_F(HostProof, IsNoCertificateOfAnotherSort) {
  const Certificate stranger = MakeAuthority("Stranger");
  const Certificate namesake = MakeAuthority();
  EXPECT_EQ(ProbeWith(MakeCertificate("IP:127.0.0.1")), CURLE_PEER_FAILED_VERIFICATION);
  EXPECT_THAT(Log(), AllOf(HasSubstr("self-signed certificate"),
                           HasSubstr("quillonctl host trust 127.0.0.1")));
  EXPECT_EQ(ProbeWith(MakeCertificate("IP:127.0.0.1", &stranger)), CURLE_PEER_FAILED_VERIFICATION);
  EXPECT_EQ(ProbeWith(MakeCertificate("IP:127.0.0.1", &namesake)), CURLE_SSL_CONNECT_ERROR);
  EXPECT_EQ(ProbeWith(MakeCertificate("IP:127.0.0.2", &authority_)),
            CURLE_PEER_FAILED_VERIFICATION);
  EXPECT_EQ(ProbeWith(MakeCertificate("DNS:localhost", &authority_)),
            CURLE_PEER_FAILED_VERIFICATION);
  EXPECT_EQ(ProbeWith(MakeCertificate("IP:127.0.0.1", &authority_, 0)),
            CURLE_PEER_FAILED_VERIFICATION);
  EXPECT_THAT(Log(), HasSubstr("certificate has expired"));
  EXPECT_EQ(requests_, 0);
}

TEST_F(HostProof, IsForTheSystemsAuthoritiesWithoutOnesOfItsOwn) {
  configuration_.cluster.ca_file = "";
  Use();
  EXPECT_EQ(ProbeWith(good_), CURLE_PEER_FAILED_VERIFICATION);
}

TEST_F(HostProof, FailsWhenTheAuthoritiesCannotBeRead) {
  configuration_.cluster.ca_file = folder_ / "missing.pem";
  Use();
  EXPECT_EQ(ProbeWith(good_), CURLE_SSL_CACERT_BADFILE);
}

TEST_F(HostProof, NeedsTLSOf12OrNewer) {
  const auto only = [](int version) {
    return [version](SSL_CTX* tls) {
      ::SSL_CTX_set_security_level(tls, 0);
      SSL_CTX_set_min_proto_version(tls, version);
      SSL_CTX_set_max_proto_version(tls, version);
    };
  };
  EXPECT_EQ(ProbeWith(good_, only(TLS1_1_VERSION)), CURLE_SSL_CONNECT_ERROR);
  EXPECT_EQ(requests_, 0);
  EXPECT_EQ(ProbeWith(good_, only(TLS1_2_VERSION)), 0);
  EXPECT_EQ(ProbeWith(good_, only(TLS1_3_VERSION)), 0);
}

TEST_F(HostProof, MayBeDemandedOfEveryHost) {
  configuration_.cluster.allow_http = false;
  Use();
  const ScriptedServer plain(AnswerAlways("{}"));
  EXPECT_EQ(Probe(plain.URL()), CURLE_UNSUPPORTED_PROTOCOL);
  EXPECT_EQ(plain.connections(), 0);
  EXPECT_THAT(Log(), HasSubstr("plain HTTP is forbidden by cluster.allow_http"));
  EXPECT_EQ(ProbeWith(good_), 0);
}

TEST_F(HostProof, IsATrustedKeyWhoeverSignedIt) {
  const Certificate own = MakeCertificate("DNS:any", nullptr, 0);
  const ScriptedServer server(AnswerAlways("{}"), &own);
  EXPECT_EQ(Probe(server.URL()), CURLE_PEER_FAILED_VERIFICATION);

  TrustHost("127.0.0.1", server.port(), own.Fingerprint());
  EXPECT_EQ(Probe(server.URL()), 0);
  TrustHost("127.0.0.1", server.port(), kKey);
  EXPECT_EQ(Probe(server.URL()), CURLE_SSL_PINNEDPUBKEYNOTMATCH);

  // Neither the connection of before nor anything else stands in for the proof.
  EXPECT_TRUE(ForgetHost("127.0.0.1", server.port()));
  EXPECT_EQ(Probe(server.URL()), CURLE_PEER_FAILED_VERIFICATION);
}

TEST_F(HostProof, IsNoOtherKeyThanTheTrustedOne) {
  int answered = 0;
  const ScriptedServer server(
      [&](test::Conversation& client) {
        while (client.Next()) {
          ++answered;
          client.Answer("{}");
        }
      },
      &good_);
  EXPECT_EQ(Probe(server.URL()), 0);
  EXPECT_EQ(answered, 1);

  // Not even when an authority signed it.
  TrustHost("127.0.0.1", server.port(), kKey);
  EXPECT_EQ(Probe(server.URL()), CURLE_SSL_PINNEDPUBKEYNOTMATCH);
  EXPECT_EQ(answered, 1);
  const std::string name = "127.0.0.1:" + std::to_string(server.port());
  EXPECT_THAT(Log(), HasSubstr(name + ": the key of this host has changed: it is " +
                               good_.Fingerprint() + " and not " + kKey +
                               ", which is trusted, so nothing was sent; if the change is known "
                               "to be right, run: quillonctl host trust " +
                               name + "\n"));
}

TEST_F(HostProof, IsNotMissingWhenAKeyIsTrusted) {
  const ScriptedServer server(AnswerAlways("{}"), &good_, [](SSL_CTX* tls) {
    ::SSL_CTX_set_security_level(tls, 0);
    SSL_CTX_set_max_proto_version(tls, TLS1_2_VERSION);
    ::SSL_CTX_set_cipher_list(tls, "aNULL");
  });
  TrustHost("127.0.0.1", server.port(), good_.Fingerprint());
  EXPECT_EQ(Probe(server.URL()), CURLE_SSL_CONNECT_ERROR);
}

TEST_F(HostProof, IsNotDoneWithoutByGoingOverPlainHTTP) {
  const ScriptedServer plain(AnswerAlways("{}"));
  TrustHost("127.0.0.1", plain.port(), kKey);
  EXPECT_EQ(Probe(plain.URL()), CURLE_UNSUPPORTED_PROTOCOL);
  EXPECT_EQ(plain.connections(), 0);
  EXPECT_THAT(Log(), HasSubstr("is trusted, so it is not spoken to over plain HTTP"));
}

TEST_F(HostProof, IsNotDoneWithoutOnAnotherPortEither) {
  const ScriptedServer plain(AnswerAlways("{}"));
  TrustHost("LocalHost", 5001, kKey);
  const std::string port = std::to_string(plain.port());
  EXPECT_EQ(Probe("http://localhost:" + port), CURLE_UNSUPPORTED_PROTOCOL);
  EXPECT_EQ(plain.connections(), 0);
  EXPECT_EQ(Probe("http://127.0.0.1:" + port), 0);  // for all that is known, it is another host
}

TEST_F(HostProof, IsNotChangedByTheEnvironment) {
  configuration_.cluster.ca_file = "";
  Use();
  folder_.Write(".curlrc", "insecure\n");
  const Certificate own = MakeCertificate("IP:127.0.0.1");
  const std::string own_file = folder_.Write("own.pem", own.Pem());
  test::InOwnProcess([&] {
    for (const char* name : {"SSL_CERT_FILE", "CURL_CA_BUNDLE"}) {
      ::setenv(name, (folder_ / "ca.pem").c_str(), 1);
    }
    ::setenv("SSL_CERT_DIR", folder_.path().c_str(), 1);
    ::setenv("CURL_HOME", folder_.path().c_str(), 1);
    ::setenv("HOME", folder_.path().c_str(), 1);
    EXPECT_EQ(ProbeWith(good_), CURLE_PEER_FAILED_VERIFICATION);
    ::setenv("SSL_CERT_FILE", own_file.c_str(), 1);
    EXPECT_EQ(ProbeWith(own), CURLE_PEER_FAILED_VERIFICATION);
  });
}

TEST_F(HostProof, IsForOnePortAndForTheHostHoweverItIsWritten) {
  const Certificate own = MakeCertificate("DNS:localhost");
  const ScriptedServer server(AnswerAlways("{}"), &own);
  const std::string port = std::to_string(server.port());
  TrustHost("LocalHost", server.port() + 1, own.Fingerprint());
  EXPECT_EQ(Probe("https://localhost:" + port), CURLE_PEER_FAILED_VERIFICATION);
  TrustHost("LocalHost", server.port(), own.Fingerprint());
  EXPECT_EQ(Probe("https://localhost:" + port), 0);
  EXPECT_EQ(Probe("HTTPS://LOCALHOST:" + port), 0);
  EXPECT_EQ(Probe("https://127.0.0.1:" + port), CURLE_PEER_FAILED_VERIFICATION);
}

TEST_F(HostProof, FailsWhenTheTrustedKeysCannotBeReliedOn) {
  const ScriptedServer server(AnswerAlways("{}"), &good_);
  const std::string file = folder_.Write("trusted-hosts", "what is this?\n");
  EXPECT_EQ(Probe(server.URL()), CURLE_FAILED_INIT);
  EXPECT_EQ(server.connections(), 0);
  EXPECT_THAT(Log(), HasSubstr(file + ": line 1 is not \"HOST:PORT sha256//BASE64\""));
}

TEST_F(HostProof, OffersItsKeyForComparison) {
  const Certificate own = MakeCertificate("DNS:any", &authority_, 0);
  int answered = 0;
  const ScriptedServer server(
      [&](test::Conversation& client) { answered += client.Next().has_value() ? 1 : 0; }, &own);
  EXPECT_EQ(FetchHostKey("127.0.0.1", server.port()), own.Fingerprint());
  EXPECT_EQ(FetchHostKey("127.0.0.1", server.port()), own.Fingerprint());
  EXPECT_EQ(server.connections(), 2);
  EXPECT_EQ(answered, 0);

  // The handle that looked keeps nothing of its leniency.
  EXPECT_EQ(Probe(server.URL()), CURLE_PEER_FAILED_VERIFICATION);
}

TEST_F(HostProof, CannotBeFetchedFromWhatSpeaksNoTLS) {
  const ScriptedServer plain(test::SendAndHangUp("HTTP/1.1 400 Bad Request\r\n\r\n"));
  EXPECT_THROW(FetchHostKey("127.0.0.1", 1), HostTrustError);
  EXPECT_THROW(FetchHostKey("no host", 5001), HostTrustError);
  EXPECT_THROW(FetchHostKey("user@host", 5001), HostTrustError);
  EXPECT_THROW(FetchHostKey("127.0.0.1", 0), HostTrustError);
  const ScriptedServer closing([](test::Conversation&) {});
  EXPECT_THROW(FetchHostKey("127.0.0.1", closing.port()), HostTrustError);
}

class TrustFileTest : public CredTest {
 protected:
  std::string Failure() {
    try {
      ListTrustedHosts();
    } catch (const HostTrustError& error) {
      return error.what();
    }
    return "no failure";
  }
  std::string path_ = folder_ / "trusted-hosts";
};

TEST_F(TrustFileTest, MayBeMissing) {
  EXPECT_TRUE(ListTrustedHosts().empty());
  EXPECT_FALSE(ForgetHost("host", 5001));
  EXPECT_FALSE(std::filesystem::exists(path_));
}

TEST_F(TrustFileTest, IsChangedLineByLine) {
  folder_.Write("trusted-hosts", std::string("# ours\n\nold:5001 ") + kKey);
  TrustHost("New", 5001, kKey);
  TrustHost("[::1]", 7, kKey);
  TrustHost("OLD", 5001, kOtherKey);
  EXPECT_EQ(folder_.Read("trusted-hosts"), std::string("# ours\n\nold:5001 ") + kOtherKey +
                                               "\nnew:5001 " + kKey + "\n[::1]:7 " + kKey + "\n");
  const std::vector<TrustedHost> hosts = ListTrustedHosts();
  ASSERT_EQ(hosts.size(), 3U);
  EXPECT_EQ(hosts[1].host, "new");
  EXPECT_EQ(hosts[1].port, 5001);
  EXPECT_EQ(hosts[1].fingerprint, kKey);

  EXPECT_EQ(RememberedHostKey("Old", 5001), kOtherKey);
  EXPECT_EQ(RememberedHostKey("[0:0:0:0:0:0:0:1]", 7), kKey);
  EXPECT_EQ(RememberedHostKey("old", 5002), std::nullopt);

  EXPECT_TRUE(ForgetHost("new", 5001));
  EXPECT_FALSE(ForgetHost("new", 5001));
  EXPECT_FALSE(ForgetHost("[::1]", 8));
  EXPECT_EQ(folder_.Read("trusted-hosts"),
            std::string("# ours\n\nold:5001 ") + kOtherKey + "\n[::1]:7 " + kKey + "\n");
}

TEST_F(TrustFileTest, IsForEverybodyToReadAndNobodyElseToWrite) {
  TrustHost("host", 5001, kKey);
  struct stat status {};
  ASSERT_EQ(::stat(path_.c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 07777, 0644U);
}

TEST_F(TrustFileTest, TakesOnlyHostsAndFingerprints) {
  EXPECT_THROW(TrustHost("", 5001, kKey), HostTrustError);
  EXPECT_THROW(TrustHost("a b", 5001, kKey), HostTrustError);
  EXPECT_THROW(TrustHost("a\nb", 5001, kKey), HostTrustError);
  EXPECT_THROW(TrustHost("a/b", 5001, kKey), HostTrustError);
  EXPECT_THROW(TrustHost("a#b", 5001, kKey), HostTrustError);
  EXPECT_THROW(TrustHost("host", 65536, kKey), HostTrustError);
  EXPECT_THROW(TrustHost("host", 5001, ""), HostTrustError);
  EXPECT_THROW(TrustHost("host", 5001, "sha256//AAAA"), HostTrustError);
  EXPECT_THROW(TrustHost("host", 5001, std::string(kKey) + ";" + kOtherKey), HostTrustError);
  EXPECT_THROW(TrustHost("host", 5001, std::string(kKey).substr(8)), HostTrustError);
  EXPECT_FALSE(std::filesystem::exists(path_));
}

TEST_F(TrustFileTest, IsRefusedForALineThatDoesNotParse) {
  const std::string key = kKey;
  for (const std::string& line :
       {"host " + key, std::string("host:5001"), "host:5001  " + key, "Host:5001 " + key,
        " host:5001 " + key, "host:5001 " + key + " ", "host:5001 " + key + "\r",
        "host:5001/x " + key, "u@host:5001 " + key, std::string(" "), std::string("\0", 1)}) {
    folder_.Write("trusted-hosts", "#\n" + line + "\n");
    EXPECT_EQ(Failure(), path_ + ": line 2 is not \"HOST:PORT sha256//BASE64\"") << line;
    EXPECT_THROW(TrustHost("other", 5001, kKey), HostTrustError);
  }
  folder_.Write("trusted-hosts", "host:1 " + key + "\nhost:1 " + kOtherKey + "\n");
  EXPECT_EQ(Failure(), path_ + ": line 2 is about a host that has a line already");
}

TEST_F(TrustFileTest, IsRefusedWhenOthersMayChangeIt) {
  TrustHost("host", 5001, kKey);
  for (const mode_t mode : {0664U, 0646U}) {
    ASSERT_EQ(::chmod(path_.c_str(), mode), 0);
    EXPECT_THAT(Failure(), HasSubstr("others than its owner may write to it"));
  }
  ASSERT_EQ(::chmod(path_.c_str(), 0644), 0);
  ASSERT_EQ(::chown(path_.c_str(), test::AsNobody::kUid, 0), 0);
  EXPECT_THAT(Failure(), HasSubstr("belongs neither to root nor to this user"));
  std::filesystem::remove(path_);

  std::filesystem::create_symlink(folder_.Write("elsewhere", ""), path_);
  EXPECT_EQ(Failure(), path_ + ": is a link");
  EXPECT_THROW(TrustHost("host", 5001, kKey), HostTrustError);
  std::filesystem::remove(path_);

  std::filesystem::create_directory(path_);
  EXPECT_EQ(Failure(), path_ + ": Is a directory");
  std::filesystem::remove(path_);

  ASSERT_EQ(::chmod(folder_.path().c_str(), 0777), 0);
  EXPECT_THROW(TrustHost("host", 5001, kKey), HostTrustError);
  EXPECT_FALSE(std::filesystem::exists(path_));
}

TEST_F(TrustFileTest, IsNotChangedByWhoMayNot) {
  TrustHost("host", 5001, kKey);
  ASSERT_EQ(::chmod(folder_.path().c_str(), 0755), 0);
  const test::AsNobody nobody;
  EXPECT_EQ(ListTrustedHosts().size(), 1U);
  EXPECT_THROW(TrustHost("other", 5001, kKey), HostTrustError);
  EXPECT_THROW(ForgetHost("host", 5001), HostTrustError);
}

TEST_F(TrustFileTest, IsChangedAlthoughSomebodyHoldsALockOnItsFolder) {
  const FileDescriptor folder(::open(folder_.path().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  ASSERT_EQ(::flock(folder.Get(), LOCK_EX | LOCK_NB), 0);
  std::thread late([&folder] {
    std::this_thread::sleep_for(std::chrono::seconds(3));
    ::flock(folder.Get(), LOCK_UN);
  });
  const auto start = std::chrono::steady_clock::now();
  TrustHost("host", 5001, kKey);
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(2));
  late.join();
}

TEST_F(TrustFileTest, LosesNothingWhenSeveralChangeItAtOnce) {
  std::vector<std::thread> threads;
  for (int i = 0; i < 4; ++i) {
    threads.emplace_back([i] {
      for (int j = 0; j < 5; ++j) {
        TrustHost("host-" + std::to_string(i), 5001 + j, kKey);
      }
    });
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
  EXPECT_EQ(ListTrustedHosts().size(), 20U);
}

}  // namespace
}  // namespace quillon::platform
