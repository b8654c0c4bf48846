#include "account_commands.h"

#include <unistd.h>

#include <algorithm>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include <fmt/format.h>
#include <json/value.h>

#include <quillon/platform/configuration.h>
#include <quillon/platform/secret.h>
#include <quillon/platform/web_accounts.h>

#include "count.h"
#include "output.h"
#include "password.h"
#include "table.h"

namespace {

using namespace quillon::platform;

constexpr char kName[] = "NAME";

struct Options {
  std::string name;
  std::string role = WebRoleName(WebRole::kMonitor);
  bool has_password_on_stdin = false;
  bool as_json = false;
};

std::string AccountsFile() { return CurrentConfiguration()->web.accounts_file; }

std::vector<WebAccount> Accounts() {
  const std::string path = AccountsFile();
  return ParseWebAccounts(ReadWebAccountsFile(path).Get(), path);
}

void RequireRoot() {
  if (::geteuid() != 0) {
    throw std::runtime_error("only root may see and change the accounts of the web server");
  }
}

// Nobody is asked for a password that cannot be used.
void RequireAccount(const std::string& name, bool exists) {
  const auto accounts = Accounts();
  const bool is_there =
      std::any_of(accounts.begin(), accounts.end(),
                  [&](const WebAccount& account) { return account.name == name; });
  if (is_there != exists) {
    throw std::runtime_error(
        fmt::format("there is {} account {}", exists ? "no" : "already an", name));
  }
}

WebRole RoleOf(const Options& options) { return ParseWebRole(options.role).value(); }

Secret NewPassword(const Options& options) {
  return options.has_password_on_stdin
             ? ReadPassword(STDIN_FILENO)
             : AskNewPassword(fmt::format("Password of {}", options.name));
}

int Add(const Options& options) {
  RequireAccount(options.name, false);
  AddWebAccount(AccountsFile(), options.name, RoleOf(options), NewPassword(options));
  WriteOutput(fmt::format("account {} added with the role {}\n", options.name, options.role));
  return kDone;
}

int Remove(const Options& options) {
  RemoveWebAccount(AccountsFile(), options.name);
  WriteOutput(fmt::format("account {} removed\n", options.name));
  return kDone;
}

int ChangePassword(const Options& options) {
  RequireAccount(options.name, true);
  ChangeWebPassword(AccountsFile(), options.name, NewPassword(options));
  WriteOutput(fmt::format("password of {} changed\n", options.name));
  return kDone;
}

int ChangeRole(const Options& options) {
  ChangeWebRole(AccountsFile(), options.name, RoleOf(options));
  WriteOutput(fmt::format("account {} has the role {}\n", options.name, options.role));
  return kDone;
}

void WriteListJson(const std::vector<WebAccount>& accounts) {
  Json::Value list(Json::arrayValue);
  for (const WebAccount& account : accounts) {
    Json::Value entry;
    entry["name"] = account.name;
    entry["role"] = WebRoleName(account.role);
    list.append(entry);
  }
  Json::Value document;
  document["total"] = list.size();
  document["accounts"] = list;
  WriteJson(document);
}

void WriteListTable(const std::vector<WebAccount>& accounts) {
  Table table({{kName, Table::Align::kLeft}, {"ROLE", Table::Align::kLeft}});
  for (const WebAccount& account : accounts) {
    table.AddRow({{account.name}, {WebRoleName(account.role)}});
  }
  WriteTable(table, Count(accounts.size(), "account", "accounts"));
}

int List(const Options& options) {
  const auto accounts = Accounts();
  if (options.as_json) {
    WriteListJson(accounts);
  } else {
    WriteListTable(accounts);
  }
  return kDone;
}

// A command of the group, with the options that it shares with others still to be added.
CLI::App* AddCommand(CLI::App& group, const std::string& name, const std::string& description,
                     const std::shared_ptr<Options>& options, int (*run)(const Options&),
                     Command& command) {
  CLI::App* added = group.add_subcommand(name, description);
  added->callback([options, run, &command] {
    command = [options, run] {
      RequireRoot();
      return run(*options);
    };
  });
  return added;
}

void AddName(CLI::App& command, Options& options) {
  command.add_option(kName, options.name, "the account's name")->type_name("")->required();
}

void AddPasswordStdin(CLI::App& command, Options& options) {
  command.add_flag("--password-stdin", options.has_password_on_stdin,
                   "read the password from standard input in place of asking for it twice");
}

CLI::Option* AddRole(CLI::App& command, const std::string& name, Options& options) {
  return command.add_option(name, options.role, "admin may do everything, monitor may look")
      ->check(CLI::IsMember({WebRoleName(WebRole::kAdmin), WebRoleName(WebRole::kMonitor)}))
      ->type_name("");
}

}  // namespace

void AddAccountCommands(CLI::App& app, Command& command) {
  CLI::App* account =
      app.add_subcommand(kAccountCommands, "Who may log in to this host's web server");
  account->require_subcommand(0, 1);
  account->footer("Example: quillonctl account add --role admin alice");
  const auto options = std::make_shared<Options>();

  CLI::App* add = AddCommand(*account, "add", "Add an account", options, Add, command);
  AddName(*add, *options);
  AddRole(*add, "--role", *options)->capture_default_str();
  AddPasswordStdin(*add, *options);
  add->footer("Example: quillonctl account add --role admin alice");

  CLI::App* list = AddCommand(*account, "list", "Show the accounts", options, List, command);
  list->add_flag("--json", options->as_json, "print JSON");
  list->footer("Example: quillonctl account list");

  CLI::App* remove = AddCommand(*account, "remove", "Remove an account and end its sessions",
                                options, Remove, command);
  AddName(*remove, *options);
  remove->footer("Example: quillonctl account remove alice");

  CLI::App* passwd = AddCommand(*account, "passwd", "Change the password of an account", options,
                                ChangePassword, command);
  AddName(*passwd, *options);
  AddPasswordStdin(*passwd, *options);
  passwd->footer("Example: quillonctl account passwd alice");

  CLI::App* role =
      AddCommand(*account, "role", "Change what an account may do", options, ChangeRole, command);
  AddName(*role, *options);
  AddRole(*role, "ROLE", *options)->required();
  role->footer("Example: quillonctl account role alice monitor");
}
