#include "import_quota_command.h"

#include <memory>
#include <string>
#include <utility>

#include <fmt/format.h>
#include <json/value.h>

#include "api_call.h"
#include "count.h"
#include "input.h"
#include "output.h"

namespace {

struct ImportOptions {
  std::string file;
  bool is_dry_run = false;
  bool as_json = false;
};

Json::Value Import(const ImportOptions& options) {
  Json::Value params;
  params["dry_run"] = options.is_dry_run;
  return Call("Quillon.MailServer.Quota", "import", std::move(params),
              Upload{"file", ReadInput(options.file)});
}

std::string Summary(const ImportOptions& options, const Json::Value& data) {
  const std::string users = CountOfUsers(data["rows"].asUInt64());
  return options.is_dry_run ? fmt::format("the file is good, quota of {} would be set\n", users)
                            : fmt::format("quota of {} set\n", users);
}

// The columns of a row that has no name could not be told apart.
void WriteRow(const std::string& file, const Json::Value& row, const std::string& text) {
  const Json::Value& name = row["name"];
  WriteError(fmt::format("{}:{}: {}{}", file, row["row"].asUInt64(),
                         name.isNull() ? "" : fmt::format("[{}]: ", name.asString()), text));
}

void WriteProblems(const std::string& file, const Json::Value& data) {
  for (const Json::Value& row : data["bad"]) {
    WriteRow(file, row, row["reason"].asString());
  }
  for (const Json::Value& row : data["failed"]) {
    WriteRow(file, row, "the limit may be set without its warning");
  }
  for (const Json::Value& row : data["left"]) {
    WriteRow(file, row, "not written");
  }
}

int ImportQuota(const ImportOptions& options) {
  try {
    const Json::Value data = Import(options);
    if (options.as_json) {
      WriteJson(data);
    } else {
      WriteOutput(Summary(options, data));
    }
    return kDone;
  } catch (const CallError& error) {
    if (!options.as_json) {
      WriteProblems(options.file, error.data());
    } else if (!error.data().isNull()) {
      WriteJson(error.data());
    }
    throw;
  }
}

}  // namespace

void AddImportQuota(CLI::App& user, Command& command) {
  const auto options = std::make_shared<ImportOptions>();
  CLI::App* quotas = user.add_subcommand(
      "import-quota", "Set the limits and warning levels that a file has for its users");
  quotas
      ->add_option("FILE", options->file,
                   "rows of name,limit,warning; - reads them from standard input")
      ->type_name("")
      ->required();
  quotas->add_flag("--dry-run", options->is_dry_run, "check the file, and change nothing");
  quotas->add_flag("--json", options->as_json, "print JSON, the rows that are bad, too");
  quotas->footer("Example: quillonctl user import-quota --dry-run quotas.csv");
  quotas->callback([options, &command] { command = [options] { return ImportQuota(*options); }; });
}
