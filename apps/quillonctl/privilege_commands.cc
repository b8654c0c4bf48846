#include "privilege_commands.h"

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <fmt/format.h>
#include <json/value.h>

#include <quillon/platform/printable.h>

#include "api_call.h"
#include "count.h"
#include "names.h"
#include "options.h"
#include "output.h"
#include "table.h"

namespace {

using quillon::platform::Printable;

constexpr char kAPI[] = "Quillon.MailServer.Privilege";

struct ChangeOptions {
  std::vector<std::string> names;
  std::optional<std::string> app;  // the API has a default
  bool as_json = false;
};

// `outcome` is what has been done to the application: "granted to", "revoked from".
int Change(const char* method, const char* outcome, const ChangeOptions& options) {
  Json::Value params;
  params["names"] = NameArray(options.names);
  if (options.app) {
    params["app"] = *options.app;
  }
  const Json::Value data = Call(kAPI, method, params);
  if (options.as_json) {
    WriteJson(data);
  } else {
    WriteOutput(fmt::format("{} {} {}\n", Printable(data["app"].asString()), outcome,
                            CountOfUsers(data["users"].size())));
  }
  return kDone;
}

void AddChange(CLI::App& privilege, const char* method, const char* description,
               const char* outcome, Command& command) {
  const auto options = std::make_shared<ChangeOptions>();
  CLI::App* change = privilege.add_subcommand(method, description);
  AddNames(*change, options->names)->required();
  AddParsed(
      *change, "--app", options->app, [](const std::string& text) { return text; },
      "name of the application, the mail client by default")
      ->type_name("APP");
  change->add_flag("--json", options->as_json, "print JSON");
  change->footer(fmt::format("Example: quillonctl privilege {} alice bob", method));
  change->callback([options, method, outcome, &command] {
    options->names = ReadNames(options->names);
    command = [options, method, outcome] { return Change(method, outcome, *options); };
  });
}

void WriteList(const Json::Value& revoked) {
  Table table({{"NAME", Table::Align::kLeft}, {"APPLICATION", Table::Align::kLeft}});
  for (const Json::Value& privilege : revoked) {
    table.AddRow(
        {{Printable(privilege["name"].asString())}, {Printable(privilege["app"].asString())}});
  }
  WriteTable(table, Count(revoked.size(), "privilege", "privileges") + " revoked");
}

void AddList(CLI::App& privilege, Command& command) {
  const auto as_json = std::make_shared<bool>(false);
  CLI::App* list =
      privilege.add_subcommand("list", "Show who may not use which application; all others may");
  list->add_flag("--json", *as_json, "print JSON");
  list->footer("Example: quillonctl privilege list");
  list->callback([as_json, &command] {
    command = [as_json] {
      const Json::Value data = Call(kAPI, "list", Json::Value(Json::objectValue));
      if (*as_json) {
        WriteJson(data);
      } else {
        WriteList(data["revoked"]);
      }
      return kDone;
    };
  });
}

}  // namespace

void AddPrivilegeCommands(CLI::App& app, Command& command) {
  CLI::App* privilege = app.add_subcommand("privilege", "Who may use which application");
  privilege->require_subcommand(0, 1);
  privilege->footer("Example: quillonctl privilege revoke alice");
  AddChange(*privilege, "grant", "Let users use an application again", "granted to", command);
  AddChange(*privilege, "revoke", "Keep users from using an application", "revoked from", command);
  AddList(*privilege, command);
}
