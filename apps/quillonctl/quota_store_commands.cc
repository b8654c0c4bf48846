#include "quota_store_commands.h"

#include <memory>

#include <fmt/format.h>
#include <json/value.h>

#include "api_call.h"
#include "output.h"
#include "warning_command.h"

namespace {

struct SyncOptions {
  bool is_dry_run = false;
  bool as_json = false;
};

int Sync(const SyncOptions& options) {
  Json::Value params;
  params["dry_run"] = options.is_dry_run;
  const Json::Value data = Call("Quillon.MailServer.Quota", "sync", params);
  if (options.as_json) {
    WriteJson(data);
  } else {
    WriteOutput(fmt::format(
        "mail users: {1} {0}added, {2} {0}changed, {3} {0}removed, {4} unchanged\n",
        options.is_dry_run ? "to be " : "", data["added"].asUInt64(), data["changed"].asUInt64(),
        data["removed"].asUInt64(), data["unchanged"].asUInt64()));
  }
  return kDone;
}

void AddSync(CLI::App& group, Command& command) {
  const auto options = std::make_shared<SyncOptions>();
  CLI::App* sync = group.add_subcommand(
      "sync", "Have the mail server know the mail users and their groups as they are now");
  sync->add_flag("--dry-run", options->is_dry_run, "only say what would change");
  sync->add_flag("--json", options->as_json, "print JSON");
  sync->footer("Example: quillonctl quota sync --dry-run");
  sync->callback([options, &command] { command = [options] { return Sync(*options); }; });
}

}  // namespace

void AddQuotaStoreCommands(CLI::App& app, Command& command) {
  CLI::App* group = app.add_subcommand(kQuota, "What the mail server makes of the quota store");
  group->require_subcommand(0, 1);
  group->footer("Example: quillonctl quota sync");
  AddSync(*group, command);
  AddWarningCommand(*group, command);
}
