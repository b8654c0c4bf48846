#include "token_command.h"

#include <memory>
#include <new>
#include <string>

#include <quillon/platform/session_token.h>
#include <vela/cred.h>
#include <velamailserver/utils.h>

#include "options.h"
#include "output.h"

namespace {

struct FreeRecord {
  void operator()(_tag_vela_cred_* cred) const { VELACredFree(cred); }
  void operator()(_tag_vela_cred_sess_* session) const { VELACredSessFree(session); }
};

int PrintToken(const HostAddress& address, RemoteOptions& remote) {
  const Destination server = DestinationAt(address, remote);
  const std::unique_ptr<_tag_vela_cred_, FreeRecord> cred(VELACredAlloc());
  const std::unique_ptr<_tag_vela_cred_sess_, FreeRecord> session(VELACredSessAlloc());
  if (cred == nullptr || session == nullptr) {
    throw std::bad_alloc();
  }
  if (prepare_login(cred.get(), server.host, server.account, server.password.Get(), server.protocol,
                    server.port) != 0 ||
      !quillon::platform::LogInForLong(cred.get(), session.get())) {
    throw NotCalled(server.host);
  }
  WriteOutput(quillon::platform::SessionToken(*session));
  WriteOutput("\n");
  return kDone;
}

}  // namespace

void AddTokenCommand(CLI::App& app, RemoteOptions& remote, Command& command) {
  const auto address = std::make_shared<HostAddress>();
  CLI::App* token = app.add_subcommand(
      kToken, "Log in to a host and print a token for other programs, as good as the password");
  AddParsed(*token, "HOST", *address, ParseHost, "host, and port unless it is a usual one")
      ->type_name("")
      ->required();
  token->footer("Example: quillonctl token mail2 --account boss");
  token->callback([address, &remote, &command] {
    remote.RequireAccount();
    command = [address, &remote] { return PrintToken(*address, remote); };
  });
}
