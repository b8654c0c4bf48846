#include "removal.h"

#include <algorithm>
#include <set>

#include <fmt/format.h>
#include <fmt/ranges.h>

#include <quillon/platform/printable.h>

#include "api_call.h"
#include "confirm.h"
#include "count.h"
#include "output.h"
#include "size.h"

namespace {

using quillon::platform::Printable;

Json::Value CallRemoval(const Removal& removal, const Json::Value& owners, bool is_dry_run) {
  Json::Value params;
  params[removal.parameter] = owners;
  params["dry_run"] = is_dry_run;
  return Call(removal.api, removal.method, params);
}

std::string CountOfMaildirs(const Removal& removal, unsigned long long count) {
  return Count(count, removal.noun, removal.plural);
}

std::string SizeAndMessages(const Json::Value& maildirs) {
  unsigned long long messages = 0;
  for (const Json::Value& maildir : maildirs) {
    messages += maildir["messages"].asUInt64();
  }
  return FormatSize(TotalUsage(maildirs)) + " in " + Count(messages, "message", "messages");
}

// A directory that cannot be read has no figures.
void WriteMaildirs(const Removal& removal, const Json::Value& maildirs) {
  std::vector<Table::Column> columns;
  columns.reserve(removal.columns.size() + 3);
  for (const Removal::Column& column : removal.columns) {
    columns.push_back({column.title, column.align});
  }
  columns.push_back({"PATH", Table::Align::kLeft});
  columns.push_back({"SIZE", Table::Align::kRight});
  columns.push_back({"MESSAGES", Table::Align::kRight});
  Table table(columns);
  for (const Json::Value& maildir : maildirs) {
    std::vector<Table::Cell> cells;
    cells.reserve(removal.columns.size() + 3);
    for (const Removal::Column& column : removal.columns) {
      cells.push_back({Printable(maildir[column.member].asString())});
    }
    const Json::Value& messages = maildir["messages"];
    cells.push_back({Printable(maildir["path"].asString())});
    cells.push_back({SizeCell(maildir["usage"], false)});
    cells.push_back({messages.isNull() ? "-" : Printable(messages.asString())});
    table.AddRow(std::move(cells));
  }
  WriteTable(table, fmt::format("{}, {}", CountOfMaildirs(removal, maildirs.size()),
                                SizeAndMessages(maildirs)));
}

// Answers the exit code.
int ReportWithout(const Removal& removal, const RemovalOptions& options, const Json::Value& data) {
  const Json::Value& without = data[removal.without];
  if (without.empty()) {
    return kDone;
  }
  std::vector<std::string> owners;
  for (const Json::Value& owner : without) {
    owners.push_back(owner.asString());
  }
  const std::string text = fmt::format("{}{}", removal.without_text, fmt::join(owners, ", "));
  if (removal.needs_directory) {
    WriteError(text);
    return kFailed;
  }
  if (!options.as_json) {
    WriteOutput(Printable(text) + "\n");
  }
  return kDone;
}

int ReportLeft(const Removal& removal, const Json::Value& left) {
  if (left.empty()) {
    return kDone;
  }
  WriteError(CountOfMaildirs(removal, left.size()) + " left; the mail log tells why");
  return kFailed;
}

// For those that were shown and are neither removed nor left: somebody else owns them by now, or
// something else is in their place.
int ReportChanged(const Json::Value& shown, const Json::Value& data) {
  std::set<std::string> reported;
  for (const char* list : {"removed", "left"}) {
    for (const Json::Value& maildir : data[list]) {
      reported.insert(maildir["path"].asString());
    }
  }
  int code = kDone;
  for (const Json::Value& maildir : shown) {
    const std::string path = maildir["path"].asString();
    if (!reported.contains(path)) {
      WriteError("not removed, it has changed since it was shown: " + Printable(path));
      code = kFailed;
    }
  }
  return code;
}

int ReportRemoval(const Removal& removal, const Json::Value& shown, const Json::Value& data) {
  if (shown.empty() && data["removed"].empty()) {
    WriteOutput("usage figures removed\n");
    return ReportLeft(removal, data["left"]);
  }
  WriteOutput(fmt::format("{} removed, {}\n", CountOfMaildirs(removal, data["removed"].size()),
                          SizeAndMessages(data["removed"])));
  if (!data["left"].empty()) {
    WriteMaildirs(removal, data["left"]);
  }
  return std::max(ReportChanged(shown, data), ReportLeft(removal, data["left"]));
}

std::string Question(const Json::Value& maildirs) {
  if (maildirs.empty()) {
    return "Remove the usage figures for good?";
  }
  return fmt::format("Remove {} with {} for good?",
                     maildirs.size() == 1 ? "this directory"
                                          : fmt::format("these {} directories", maildirs.size()),
                     FormatSize(TotalUsage(maildirs)));
}

// Those who were shown.
Json::Value OwnersIn(const Removal& removal, const Json::Value& preview) {
  Json::Value owners(Json::arrayValue);
  for (const Json::Value& maildir : preview["maildirs"]) {
    owners.append(maildir[removal.columns.front().member]);
  }
  if (!removal.needs_directory) {
    for (const Json::Value& owner : preview[removal.without]) {
      owners.append(owner);
    }
  }
  return owners;
}

int RemoveForPrograms(const Removal& removal, const RemovalOptions& options) {
  try {
    const Json::Value data = CallRemoval(removal, options.owners, options.is_dry_run);
    WriteJson(data);
    return std::max(ReportWithout(removal, options, data), ReportLeft(removal, data["left"]));
  } catch (const CallError& error) {
    if (!error.data().isNull()) {
      WriteJson(error.data());
    }
    throw;
  }
}

int RemoveForPeople(const Removal& removal, const RemovalOptions& options) {
  const Json::Value preview = CallRemoval(removal, options.owners, true);
  const Json::Value& maildirs = preview["maildirs"];
  const int code = ReportWithout(removal, options, preview);
  if (!maildirs.empty()) {
    WriteMaildirs(removal, maildirs);
  }
  const Json::Value owners = OwnersIn(removal, preview);
  if (options.is_dry_run || owners.empty()) {
    return code;
  }
  if (!options.is_agreed && !IsAgreed(Question(maildirs))) {
    WriteError("nothing was removed");
    return kFailed;
  }
  try {
    return std::max(code, ReportRemoval(removal, maildirs, CallRemoval(removal, owners, false)));
  } catch (const CallError& error) {
    if (error.data().isObject() && !maildirs.empty()) {
      ReportRemoval(removal, maildirs, error.data());
    }
    throw;
  }
}

}  // namespace

void AddRemovalOptions(CLI::App& command, RemovalOptions& options) {
  command.add_flag("--yes", options.is_agreed, "do not ask; needed where there is no terminal");
  command.add_flag("--dry-run", options.is_dry_run, "show what would go, and change nothing");
  command.add_flag("--json", options.as_json, "print JSON; does not ask, so it needs --yes");
}

void RequireAgreement(const RemovalOptions& options) {
  const auto& arguments = options.arguments;
  const bool is_input_used = std::find(arguments.begin(), arguments.end(), "-") != arguments.end();
  const bool can_ask = !options.as_json && !is_input_used && CanAsk();
  if (!options.is_agreed && !options.is_dry_run && !can_ask) {
    throw CLI::RequiredError("--yes is required where nobody can be asked",
                             CLI::ExitCodes::RequiredError);
  }
}

int Remove(const Removal& removal, const RemovalOptions& options) {
  return options.as_json ? RemoveForPrograms(removal, options) : RemoveForPeople(removal, options);
}
