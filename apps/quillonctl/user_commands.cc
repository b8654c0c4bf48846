#include "user_commands.h"

#include <algorithm>
#include <cstddef>
#include <iterator>
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
#include "import_quota_command.h"
#include "names.h"
#include "number.h"
#include "options.h"
#include "output.h"
#include "size.h"
#include "table.h"

namespace {

constexpr char kAPI[] = "Quillon.MailServer.User";

struct ListOptions {
  std::vector<std::string> names;
  std::string sort = "name";
  bool is_reversed = false;
  std::optional<double> above;
  Page page;
  bool in_bytes = false;
  bool as_json = false;
};

Json::Value ListParams(const ListOptions& options) {
  Json::Value params;
  params["sort"] = options.sort;
  params["direction"] = options.is_reversed ? "DESC" : "ASC";
  if (!options.names.empty()) {
    params["names"] = NameArray(options.names);
  }
  if (options.above) {
    params["above"] = *options.above;
  }
  SetPage(options.page, params);
  return params;
}

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
  const auto size = [in_bytes](const Json::Value& bytes) {
    return in_bytes ? fmt::to_string(bytes.asUInt64()) : FormatSize(bytes.asUInt64());
  };
  const Json::Value& limit = user["limit"];
  const Json::Value& warning = user["warning"];
  const Json::Value& percent = user["percent"];
  const fmt::text_style style =
      has_colour ? LevelOf(user["usage"].asUInt64(), limit, warning) : fmt::text_style();

  std::vector<Table::Cell> cells;
  cells.reserve(6);
  cells.push_back({quillon::platform::Printable(user["name"].asString())});
  cells.push_back({limit.isNull() ? "-" : limit.asUInt64() == 0 ? "unlimited" : size(limit)});
  cells.push_back({warning.isNull() ? "-" : size(warning)});
  cells.push_back({size(user["usage"])});
  cells.push_back({percent.isNull() ? "-" : fmt::format("{:.1f}%", percent.asDouble()), style});
  cells.push_back({percent.isNull() ? "" : Bar(percent.asDouble()), style});
  return cells;
}

std::string Totals(const Json::Value& data, bool in_bytes) {
  const Json::Value& users = data["users"];
  const unsigned long long usage = TotalUsage(users);
  const unsigned long long total = data["total"].asUInt64();
  const std::string page = users.size() == total ? "" : fmt::format("{} of ", users.size());
  return fmt::format("{}{}, {} used\n", page, CountOfUsers(total),
                     in_bytes ? fmt::to_string(usage) : FormatSize(usage));
}

void WriteTable(const Json::Value& data, bool in_bytes) {
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
  fmt::memory_buffer out;
  table.AppendTo(out);
  fmt::format_to(std::back_inserter(out), "{}", Totals(data, in_bytes));
  WriteOutput({out.data(), out.size()});
}

int ListUsers(const ListOptions& options) {
  const Json::Value data = Call(kAPI, "list", ListParams(options));
  if (options.as_json) {
    WriteJson(data);
  } else {
    WriteTable(data, options.in_bytes);
  }
  return kDone;
}

void AddList(CLI::App& user, Command& command) {
  const auto options = std::make_shared<ListOptions>();
  CLI::App* list =
      user.add_subcommand("list", "Show the quota and usage of users, or of all mail users");
  AddNames(*list, options->names);
  list->add_option("--sort", options->sort, "order of the users")
      ->check(CLI::IsMember({"name", "limit", "warning", "usage", "percent"}))
      ->capture_default_str();
  list->add_flag("--reverse", options->is_reversed, "highest first");
  AddParsed(*list, "--above", options->above, ParseNumber,
            "only users who use at least this percentage of their limit")
      ->type_name("PERCENT");
  AddPage(*list, options->page, "users");
  list->add_flag("--bytes", options->in_bytes, "show exact sizes");
  list->add_flag("--json", options->as_json, "print JSON");
  list->footer("Example: quillonctl user list --above 80 --sort percent --reverse");
  list->callback([options, &command] {
    options->names = ReadNames(options->names);
    command = [options] { return ListUsers(*options); };
  });
}

struct QuotaOptions {
  std::vector<std::string> names;
  unsigned long long limit = 0;
  unsigned long long warning = 0;
  bool as_json = false;
};

int SetQuota(const QuotaOptions& options) {
  Json::Value params;
  params["names"] = NameArray(options.names);
  params["limit"] = Json::UInt64{options.limit};
  params["warning"] = Json::UInt64{options.warning};
  const Json::Value data = Call(kAPI, "set_quota", params);
  if (options.as_json) {
    WriteJson(data);
  } else {
    WriteOutput(fmt::format("quota of {} set: limit {}, warning {}\n",
                            CountOfUsers(data["users"].size()), FormatSize(options.limit),
                            FormatSize(options.warning)));
  }
  return kDone;
}

int ClearQuota(const QuotaOptions& options) {
  Json::Value params;
  params["names"] = NameArray(options.names);
  const Json::Value data = Call(kAPI, "clear_quota", params);
  if (options.as_json) {
    WriteJson(data);
  } else {
    WriteOutput(fmt::format("quota of {} cleared\n", CountOfUsers(data["users"].size())));
  }
  return kDone;
}

void AddSize(CLI::App& command, const std::string& name, unsigned long long& bytes,
             const std::string& description) {
  AddParsed(command, name, bytes, ParseSize, description)->type_name("SIZE")->required();
}

void AddSetQuota(CLI::App& user, Command& command) {
  const auto options = std::make_shared<QuotaOptions>();
  CLI::App* set = user.add_subcommand("set-quota", "Set the limit and the warning level of users");
  AddSize(*set, "--limit", options->limit, "most mail that may be stored, such as 500M or 10G");
  AddSize(*set, "--warning", options->warning, "mail from which on there is a warning");
  AddNames(*set, options->names)->required();
  set->add_flag("--json", options->as_json, "print JSON");
  set->footer("Example: quillonctl user set-quota --limit 10G --warning 9G alice bob");
  set->callback([options, &command] {
    options->names = ReadNames(options->names);
    command = [options] { return SetQuota(*options); };
  });
}

void AddClearQuota(CLI::App& user, Command& command) {
  const auto options = std::make_shared<QuotaOptions>();
  CLI::App* clear =
      user.add_subcommand("clear-quota", "Remove the limit and the warning level of users");
  AddNames(*clear, options->names)->required();
  clear->add_flag("--json", options->as_json, "print JSON");
  clear->footer("Example: quillonctl user clear-quota alice bob");
  clear->callback([options, &command] {
    options->names = ReadNames(options->names);
    command = [options] { return ClearQuota(*options); };
  });
}

}  // namespace

void AddUserCommands(CLI::App& app, Command& command) {
  CLI::App* user = app.add_subcommand("user", "Quota and usage of mail users");
  user->require_subcommand(0, 1);
  user->footer("Example: quillonctl user list --sort usage --reverse");
  AddList(*user, command);
  AddSetQuota(*user, command);
  AddClearQuota(*user, command);
  AddImportQuota(*user, command);
}
