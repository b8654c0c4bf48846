#include "user_commands.h"

#include <algorithm>
#include <cstddef>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include <fmt/color.h>
#include <fmt/format.h>
#include <json/value.h>

#include <quillon/platform/printable.h>

#include "api_call.h"
#include "clear_storage_command.h"
#include "count.h"
#include "import_quota_command.h"
#include "listing.h"
#include "names.h"
#include "number.h"
#include "options.h"
#include "output.h"
#include "quota_commands.h"
#include "size.h"
#include "table.h"
#include "user_show_command.h"

namespace {

constexpr char kAPI[] = "Quillon.MailServer.User";

struct ListOptions {
  Listing listing;
  std::optional<double> above;
};

std::string Bar(double percent) {
  constexpr double kFull = 10;
  const auto length = static_cast<std::size_t>(std::min(percent * kFull / 100, kFull));
  return fmt::format("[{:.<10}]", std::string(length, '#'));
}

// How urgent it is; without a limit nothing is.
fmt::text_style LevelOf(unsigned long long usage, const Json::Value& limit,
                        const Json::Value& warning) {
  if (limit.asUInt64() == 0) {
    return {};
  }
  return fmt::fg(usage >= limit.asUInt64()                          ? fmt::terminal_color::red
                 : !warning.isNull() && usage >= warning.asUInt64() ? fmt::terminal_color::yellow
                                                                    : fmt::terminal_color::green);
}

std::vector<Table::Cell> Row(const Json::Value& user, bool in_bytes, bool has_colour) {
  const Json::Value& limit = user["limit"];
  const Json::Value& warning = user["warning"];
  const Json::Value& percent = user["percent"];
  const fmt::text_style style =
      has_colour ? LevelOf(user["usage"].asUInt64(), limit, warning) : fmt::text_style();

  std::vector<Table::Cell> cells;
  cells.reserve(6);
  cells.push_back({quillon::platform::Printable(user["name"].asString())});
  cells.push_back({StoredLimitCell(limit, in_bytes)});
  cells.push_back({SizeCell(warning, in_bytes)});
  cells.push_back({SizeCell(user["usage"], in_bytes)});
  cells.push_back({percent.isNull() ? "-" : fmt::format("{:.1f}%", percent.asDouble()), style});
  cells.push_back({percent.isNull() ? "" : Bar(percent.asDouble()), style});
  return cells;
}

std::string Totals(const Json::Value& data, bool in_bytes) {
  const Json::Value& users = data["users"];
  const unsigned long long total = data["total"].asUInt64();
  return fmt::format("{}{}, {} used", PartOf(users.size(), total), CountOfUsers(total),
                     SizeCell(Json::UInt64{TotalUsage(users)}, in_bytes));
}

void WriteList(const Json::Value& data, bool in_bytes) {
  Table table({{"NAME", Table::Align::kLeft},
               {"LIMIT", Table::Align::kRight},
               {"WARNING", Table::Align::kRight},
               {"USAGE", Table::Align::kRight},
               {"PERCENT", Table::Align::kRight},
               {"", Table::Align::kLeft}});
  const bool has_colour = OutputHasColour();
  for (const Json::Value& user : data["users"]) {
    table.AddRow(Row(user, in_bytes, has_colour));
  }
  WriteTable(table, Totals(data, in_bytes));
}

int ListUsers(const ListOptions& options) {
  Json::Value params = ParamsOf(options.listing);
  if (options.above) {
    params["above"] = *options.above;
  }
  const Json::Value data = Call(kAPI, "list", params);
  if (options.listing.as_json) {
    WriteJson(data);
  } else {
    WriteList(data, options.listing.in_bytes);
  }
  return kDone;
}

void AddList(CLI::App& user, Command& command) {
  const auto options = std::make_shared<ListOptions>();
  CLI::App* list =
      user.add_subcommand("list", "Show the quota and usage of users, or of all mail users");
  AddParsed(*list, "--above", options->above, ParseNumber,
            "only users who use at least this percentage of a limit of their own")
      ->type_name("PERCENT");
  AddListing(*list, options->listing, "users", {"name", "limit", "warning", "usage", "percent"});
  list->footer("Example: quillonctl user list --above 80 --sort percent --reverse");
  list->callback([options, &command] {
    options->listing.names = ReadNames(options->listing.names);
    command = [options] { return ListUsers(*options); };
  });
}

}  // namespace

void AddUserCommands(CLI::App& app, Command& command) {
  CLI::App* user = app.add_subcommand("user", "Quota, usage and storage of mail users");
  user->require_subcommand(0, 1);
  user->footer("Example: quillonctl user list --sort usage --reverse");
  AddList(*user, command);
  AddUserShow(*user, command);
  AddQuotaCommands(*user, {kAPI, "user", "users", "alice bob"}, command);
  AddImportQuota(*user, command);
  AddClearStorage(*user, command);
}
