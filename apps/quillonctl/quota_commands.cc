#include "quota_commands.h"

#include <memory>
#include <vector>

#include <fmt/format.h>
#include <json/value.h>

#include "api_call.h"
#include "count.h"
#include "names.h"
#include "options.h"
#include "output.h"
#include "size.h"

namespace {

struct QuotaOptions {
  std::vector<std::string> names;
  unsigned long long limit = 0;
  unsigned long long warning = 0;
  bool as_json = false;
};

std::string CountIn(const QuotaOwners& owners, const Json::Value& data) {
  return Count(data[owners.plural].size(), owners.noun, owners.plural);
}

int SetQuota(const QuotaOwners& owners, const QuotaOptions& options) {
  Json::Value params;
  params["names"] = NameArray(options.names);
  params["limit"] = Json::UInt64{options.limit};
  params["warning"] = Json::UInt64{options.warning};
  const Json::Value data = Call(owners.api, "set_quota", params);
  if (options.as_json) {
    WriteJson(data);
  } else {
    WriteOutput(fmt::format("quota of {} set: limit {}, warning {}\n", CountIn(owners, data),
                            StoredLimitCell(params["limit"], false), FormatSize(options.warning)));
  }
  return kDone;
}

int ClearQuota(const QuotaOwners& owners, const QuotaOptions& options) {
  Json::Value params;
  params["names"] = NameArray(options.names);
  const Json::Value data = Call(owners.api, "clear_quota", params);
  if (options.as_json) {
    WriteJson(data);
  } else {
    WriteOutput(fmt::format("quota of {} cleared\n", CountIn(owners, data)));
  }
  return kDone;
}

void AddSize(CLI::App& command, const std::string& name, unsigned long long& bytes,
             const std::string& description) {
  AddParsed(command, name, bytes, ParseSize, description)->type_name("SIZE")->required();
}

void AddSetQuota(CLI::App& group, const QuotaOwners& owners, Command& command) {
  const auto options = std::make_shared<QuotaOptions>();
  CLI::App* set =
      group.add_subcommand("set-quota", "Set the limit and the warning level of " + owners.plural);
  AddSize(*set, "--limit", options->limit, "most mail that a user may store, such as 500M or 10G");
  AddSize(*set, "--warning", options->warning, "mail from which on there is a warning");
  AddNames(*set, options->names, owners.plural)->required();
  set->add_flag("--json", options->as_json, "print JSON");
  set->footer(fmt::format("Example: quillonctl {} set-quota --limit 10G --warning 9G {}",
                          owners.noun, owners.example));
  set->callback([options, owners, &command] {
    options->names = ReadNames(options->names);
    command = [options, owners] { return SetQuota(owners, *options); };
  });
}

void AddClearQuota(CLI::App& group, const QuotaOwners& owners, Command& command) {
  const auto options = std::make_shared<QuotaOptions>();
  CLI::App* clear = group.add_subcommand(
      "clear-quota", "Remove the limit and the warning level of " + owners.plural);
  AddNames(*clear, options->names, owners.plural)->required();
  clear->add_flag("--json", options->as_json, "print JSON");
  clear->footer(fmt::format("Example: quillonctl {} clear-quota {}", owners.noun, owners.example));
  clear->callback([options, owners, &command] {
    options->names = ReadNames(options->names);
    command = [options, owners] { return ClearQuota(owners, *options); };
  });
}

}  // namespace

void AddQuotaCommands(CLI::App& group, const QuotaOwners& owners, Command& command) {
  AddSetQuota(group, owners, command);
  AddClearQuota(group, owners, command);
}
