#include <fcntl.h>
#include <unistd.h>

#include <clocale>
#include <exception>
#include <sstream>
#include <string>

#include <CLI/CLI.hpp>
#include <fmt/format.h>

#include <quillon/handlers/register.h>
#include <quillon/platform/configuration.h>
#include <velamailserver/log_exception.h>

#include "account_commands.h"
#include "api_call.h"
#include "command.h"
#include "doctor/doctor_command.h"
#include "export_command.h"
#include "group_commands.h"
#include "host_commands.h"
#include "no_owner_commands.h"
#include "output.h"
#include "privilege_commands.h"
#include "quota_store_commands.h"
#include "remote.h"
#include "token_command.h"
#include "usage_commands.h"
#include "user_commands.h"
#include "warning_command.h"

namespace {

// A standard stream that is closed would be taken by the next file or connection that is opened,
// and our output would end up in there. In the wrong direction, every use of it still fails.
void OccupyStandardStreams() {
  for (const int fd : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
    if (::fcntl(fd, F_GETFD) < 0) {
      ::open("/dev/null", fd == STDIN_FILENO ? O_WRONLY : O_RDONLY);
    }
  }
}

// CLI11 splits "[a,b]" into two names, and there may be an account that is called so. None is
// called like an IPv6 address.
void RefuseBrackets(int argc, char** argv) {
  for (int i = 1; i < argc; ++i) {
    const std::string argument = argv[i];
    const bool has_colon = argument.find(':') != std::string::npos;
    if (argument.starts_with('[') && argument.ends_with(']') && !has_colon) {
      throw CLI::ValidationError(argument, "a name in brackets is given on standard input, with -");
    }
  }
}

void UseConfigurationOf(const CLI::Option& file) {
  using namespace quillon::platform;
  if (file.count() != 0) {
    UseConfiguration(LoadConfiguration(file.as<std::string>()));
  } else {
    CurrentConfiguration();
  }
}

// Help and version are asked for by "errors" too.
int Answer(const CLI::App& app, const CLI::ParseError& error) {
  if (error.get_exit_code() != static_cast<int>(CLI::ExitCodes::Success)) {
    WriteError(error.what());
    WriteError("--help shows how to use it");
    return kWrongUsage;
  }
  std::ostringstream text;
  app.exit(error, text, text);
  WriteOutput(text.str());
  return kDone;
}

// Where the command is carried out must never be other than whoever typed it believes.
void CheckRemote(const CLI::App& app, const RemoteOptions& remote) {
  const bool names_its_hosts = app.got_subcommand(kHostCommands) || app.got_subcommand(kToken);
  if (names_its_hosts && remote.host) {
    throw CLI::ValidationError("--host", "this command is followed by its hosts");
  }
  if (app.got_subcommand(kAccountCommands) && remote.IsAny()) {
    throw CLI::ValidationError("--host", "the accounts of a host are kept on the host itself");
  }
  if ((app.got_subcommand(kExport) || app.got_subcommand(kDoctor)) && remote.IsAny()) {
    throw CLI::ValidationError("--host", "settings are those of the host itself");
  }
  if (app.get_subcommand(kQuota)->got_subcommand(kWarning) && remote.IsAny()) {
    throw CLI::ValidationError("--host", "the message is for a mailbox of this host");
  }
  if (!names_its_hosts && remote.IsAny() && !remote.host) {
    throw CLI::RequiredError("--host");
  }
  if (remote.host) {
    remote.RequireAccount();
  }
}

int Execute(int argc, char** argv) {
  CLI::App app("Administers the mail server of this host, or of another.", "quillonctl");
  Command command;
  const CLI::Option* configuration =
      app.add_option("--config", "configuration file")
          ->type_name("FILE")
          ->default_str(quillon::platform::kDefaultConfigurationFile);
  RemoteOptions remote;
  AddRemoteOptions(app, remote);
  app.set_version_flag("--version", "quillonctl " QUILLON_VERSION);
  app.fallthrough();  // the options above may stand behind a command, too
  app.require_subcommand(0, 1);
  app.footer(
      "Example: quillonctl user list --above 80\n"
      "Example: quillonctl --host mail2 --account boss user list --above 80");
  AddUserCommands(app, command);
  AddGroupCommands(app, command);
  AddPrivilegeCommands(app, command);
  AddUsageCommands(app, command);
  AddQuotaStoreCommands(app, command);
  AddExportCommands(app, *configuration, command);
  AddDoctorCommand(app, *configuration, command);
  AddNoOwnerCommands(app, command);
  AddAccountCommands(app, command);
  AddHostCommands(app, remote, command);
  AddTokenCommand(app, remote, command);
  try {
    RefuseBrackets(argc, argv);
    app.parse(argc, argv);
    if (!command) {
      throw CLI::RequiredError("A command");
    }
    CheckRemote(app, remote);
  } catch (const CLI::ParseError& error) {
    return Answer(app, error);
  }

  UseConfigurationOf(*configuration);
  quillon::handlers::RegisterAll();
  if (remote.host) {
    SendCallsTo(DestinationAt(*remote.host, remote));
  }
  return command();
}

}  // namespace

int main(int argc, char** argv) {
  OccupyStandardStreams();
  // For the width of names; nothing else depends on it.
  static_cast<void>(std::setlocale(LC_CTYPE, "C.UTF-8"));
  try {
    return Execute(argc, argv);
  } catch (const CallError& error) {
    // One API's failure within another's comes without its reason.
    const bool is_logged_only = error.code() == velamailserver::ERR_RUN_WEBAPI;
    WriteError(fmt::format("{} (error {}){}", error.what(), error.code(),
                           is_logged_only ? "; the mail log has the reason" : ""));
  } catch (const std::exception& error) {
    WriteError(error.what());
  }
  return kFailed;
}
