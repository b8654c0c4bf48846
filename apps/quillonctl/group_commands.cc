#include "group_commands.h"

#include <memory>
#include <string>

#include <fmt/format.h>
#include <json/value.h>

#include <quillon/platform/printable.h>

#include "api_call.h"
#include "count.h"
#include "listing.h"
#include "names.h"
#include "output.h"
#include "quota_commands.h"
#include "size.h"
#include "table.h"

namespace {

using quillon::platform::Printable;

constexpr char kAPI[] = "Quillon.MailServer.Group";

void WriteList(const Json::Value& data, bool in_bytes) {
  Table table({{"NAME", Table::Align::kLeft},
               {"LIMIT", Table::Align::kRight},
               {"WARNING", Table::Align::kRight}});
  const Json::Value& groups = data["groups"];
  for (const Json::Value& group : groups) {
    table.AddRow({{Printable(group["name"].asString())},
                  {StoredLimitCell(group["limit"], in_bytes)},
                  {SizeCell(group["warning"], in_bytes)}});
  }
  const unsigned long long total = data["total"].asUInt64();
  WriteTable(table, PartOf(groups.size(), total) + CountOfGroups(total));
}

int ListGroups(const Listing& listing) {
  const Json::Value data = Call(kAPI, "list", ParamsOf(listing));
  if (listing.as_json) {
    WriteJson(data);
  } else {
    WriteList(data, listing.in_bytes);
  }
  return kDone;
}

void AddList(CLI::App& group, Command& command) {
  const auto listing = std::make_shared<Listing>();
  CLI::App* list =
      group.add_subcommand("list", "Show the quota that groups, or all groups, give their members");
  AddListing(*list, *listing, "groups", {"name", "limit", "warning"});
  list->footer("Example: quillonctl group list --sort limit --reverse");
  list->callback([listing, &command] {
    listing->names = ReadNames(listing->names);
    command = [listing] { return ListGroups(*listing); };
  });
}

struct ShareQuotaOptions {
  std::string name;
  bool in_bytes = false;
  bool as_json = false;
};

int ShowShareQuota(const ShareQuotaOptions& options) {
  Json::Value params;
  params["name"] = options.name;
  const Json::Value data = Call(kAPI, "share_quota", params);
  if (options.as_json) {
    WriteJson(data);
  } else {
    WriteOutput(fmt::format("share quota of {}: {}\n", Printable(data["name"].asString()),
                            SizeCell(data["share_quota"], options.in_bytes)));
  }
  return kDone;
}

void AddShareQuota(CLI::App& group, Command& command) {
  const auto options = std::make_shared<ShareQuotaOptions>();
  CLI::App* share = group.add_subcommand(
      "share-quota", "Show the quota of a group on the shared folder that holds the mail");
  share->add_option("NAME", options->name, "name of the group")->type_name("")->required();
  share->add_flag("--bytes", options->in_bytes, "show the exact size");
  share->add_flag("--json", options->as_json, "print JSON");
  share->footer("Example: quillonctl group share-quota staff");
  share->callback(
      [options, &command] { command = [options] { return ShowShareQuota(*options); }; });
}

}  // namespace

void AddGroupCommands(CLI::App& app, Command& command) {
  CLI::App* group = app.add_subcommand("group", "Quota of groups");
  group->require_subcommand(0, 1);
  group->footer("Example: quillonctl group set-quota --limit 10G --warning 9G staff");
  AddList(*group, command);
  AddQuotaCommands(*group, {kAPI, "group", "groups", "staff guests"}, command);
  AddShareQuota(*group, command);
}
