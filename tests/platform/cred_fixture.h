#pragma once

#include <memory>
#include <string>

#include <gtest/gtest.h>
#include <json/value.h>

#include <quillon/platform/configuration.h>
#include <vela/cred.h>

#include "cred/records.h"
#include "support/temporary_folder.h"

namespace quillon::platform {

/// A world with a mail log, a file for trusted keys, and records of a host.
class CredTest : public testing::Test {
 protected:
  CredTest() {
    configuration_.log = {"file", folder_.Write("mail.log", "")};
    configuration_.cluster.trusted_hosts = folder_ / "trusted-hosts";
    Use();
  }

  /// Makes a changed `configuration_` the one that counts.
  void Use() { UseConfiguration(configuration_); }

  std::string Log() { return folder_.Read("mail.log"); }

  struct FreeCred {
    void operator()(_tag_vela_cred_* cred) const { VELACredFree(cred); }
    void operator()(_tag_vela_cred_sess_* session) const { VELACredSessFree(session); }
  };
  using Cred = std::unique_ptr<_tag_vela_cred_, FreeCred>;
  using Session = std::unique_ptr<_tag_vela_cred_sess_, FreeCred>;

  static Cred MakeCred(int port, const char* protocol = "http", const char* password = "password") {
    Cred cred(VELACredAlloc());
    VELACredItemSetHost(cred.get(), "127.0.0.1");
    VELACredItemSetRemoteAccount(cred.get(), "operator");
    VELACredItemSetRemotePasswd(cred.get(), password);
    VELACredItemSetProtocol(cred.get(), protocol);
    VELACredItemSetPort(cred.get(), port);
    return cred;
  }

  static Session LoggedIn() {
    Session session(VELACredSessAlloc());
    session->token.Set("the-token");
    return session;
  }

  test::TemporaryFolder folder_;
  Configuration configuration_;
};

}  // namespace quillon::platform
