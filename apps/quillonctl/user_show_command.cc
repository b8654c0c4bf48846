#include "user_show_command.h"

#include <memory>
#include <string>
#include <vector>

#include <fmt/format.h>
#include <json/value.h>

#include <quillon/platform/printable.h>

#include "api_call.h"
#include "count.h"
#include "names.h"
#include "output.h"
#include "size.h"
#include "table.h"

namespace {

using quillon::platform::Printable;

struct ShowOptions {
  std::vector<std::string> names;
  bool in_bytes = false;
  bool as_json = false;
};

std::vector<Table::Cell> Row(const Json::Value& user, bool in_bytes) {
  const Json::Value& limit = user["quota_limit"];
  const Json::Value& maildir = user["maildir"];
  std::vector<Table::Cell> cells;
  cells.reserve(6);
  cells.push_back({Printable(user["name"].asString())});
  cells.push_back({user["has_app_privilege"].asBool() ? "yes" : "no"});
  // Nothing limits the user, for whatever reason.
  cells.push_back({limit.asUInt64() == 0 ? "-" : SizeCell(limit, in_bytes)});
  cells.push_back({SizeCell(user["share_quota"], in_bytes)});
  cells.push_back({SizeCell(user["usage"], in_bytes)});
  cells.push_back({maildir.isNull() ? "-" : Printable(maildir.asString())});
  return cells;
}

void WriteDetails(const Json::Value& users, bool in_bytes) {
  Table table({{"NAME", Table::Align::kLeft},
               {"MAIL CLIENT", Table::Align::kLeft},
               {"LIMIT", Table::Align::kRight},
               {"SHARE QUOTA", Table::Align::kRight},
               {"USAGE", Table::Align::kRight},
               {"MAILDIR", Table::Align::kLeft}});
  for (const Json::Value& user : users) {
    table.AddRow(Row(user, in_bytes));
  }
  WriteTable(table, fmt::format("{}, {} used", CountOfUsers(users.size()),
                                SizeCell(Json::UInt64{TotalUsage(users)}, in_bytes)));
}

int ShowUsers(const ShowOptions& options) {
  Json::Value params(Json::objectValue);
  if (!options.names.empty()) {
    params["names"] = NameArray(options.names);
  }
  const Json::Value data = Call("Quillon.MailServer.User", "details", params);
  if (options.as_json) {
    WriteJson(data);
  } else {
    WriteDetails(data["users"], options.in_bytes);
  }
  return kDone;
}

}  // namespace

void AddUserShow(CLI::App& user, Command& command) {
  const auto options = std::make_shared<ShowOptions>();
  CLI::App* show = user.add_subcommand(
      "show", "Show what applies to users, or to all mail users, and where their mail lies");
  AddNames(*show, options->names);
  show->add_flag("--bytes", options->in_bytes, "show exact sizes");
  show->add_flag("--json", options->as_json, "print JSON");
  show->footer("Example: quillonctl user show alice bob");
  show->callback([options, &command] {
    options->names = ReadNames(options->names);
    command = [options] { return ShowUsers(*options); };
  });
}
