#include "usage_commands.h"

#include <algorithm>
#include <cstddef>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include <fmt/format.h>
#include <json/value.h>

#include <quillon/platform/printable.h>

#include "api_call.h"
#include "count.h"
#include "names.h"
#include "output.h"
#include "progress.h"
#include "size.h"

namespace {

using quillon::platform::Printable;

// Few enough for the progress to move, many enough for the calls not to matter.
constexpr std::size_t kNamesPerCall = 50;

struct CountOptions {
  std::vector<std::string> names;
  bool as_json = false;
};

// The accounts to count, each once however it was named; all of them without names. The calls that
// count know nothing of each other: the first would be done when a later one refused a name.
Json::Value AccountNames(const std::vector<std::string>& names) {
  Json::Value params;
  if (!names.empty()) {
    params["names"] = NameArray(names);
  }
  return Call("Quillon.MailServer.User", "names", params)["names"];
}

// Counts chunk by chunk, until one of them is skipped; answers like a single count of them all.
Json::Value Count(const Json::Value& names) {
  Json::Value answer;
  answer["counted"] = Json::Value(Json::arrayValue);
  answer["kept"] = Json::Value(Json::arrayValue);
  answer["skipped"] = false;
  const Progress progress;
  for (Json::ArrayIndex begin = 0; begin < names.size() && !answer["skipped"].asBool();) {
    progress.Show(fmt::format("counting: {} of {}", begin, CountOfUsers(names.size())));
    const auto end =
        static_cast<Json::ArrayIndex>(std::min<std::size_t>(begin + kNamesPerCall, names.size()));
    Json::Value params;
    Json::Value& chunk = params["names"] = Json::Value(Json::arrayValue);
    for (; begin < end; ++begin) {
      chunk.append(names[begin]);
    }
    Json::Value data = Call("Quillon.MailServer.Usage", "count", params);
    for (const char* list : {"counted", "kept"}) {
      for (Json::Value& user : data[list]) {
        answer[list].append(std::move(user));
      }
    }
    if (data["skipped"].asBool()) {
      answer["skipped"] = true;
      answer["reason"] = data["reason"];
    }
  }
  return answer;
}

std::string Summary(const Json::Value& answer) {
  const unsigned long long bytes = TotalUsage(answer["counted"]);
  std::string text = fmt::format("usage of {} counted: {} ({} bytes)\n",
                                 CountOfUsers(answer["counted"].size()), FormatSize(bytes), bytes);
  if (const Json::Value& kept = answer["kept"]; !kept.empty()) {
    std::vector<std::string> names;
    for (const Json::Value& name : kept) {
      names.push_back(Printable(name.asString()));
    }
    text += fmt::format("usage of {} kept as the mail server has it, it changed all the time: {}\n",
                        CountOfUsers(kept.size()), fmt::join(names, ", "));
  }
  return text;
}

int CountUsage(const CountOptions& options) {
  const Json::Value names = AccountNames(options.names);
  const Json::Value answer = Count(names);
  const bool is_skipped = answer["skipped"].asBool();
  if (options.as_json) {
    WriteJson(answer);
  } else if (!is_skipped) {
    WriteOutput(Summary(answer));
  }
  if (is_skipped) {
    WriteError(fmt::format("usage of {} of {} counted, then {}", answer["counted"].size(),
                           CountOfUsers(names.size()), answer["reason"].asString()));
  }
  return is_skipped ? kFailed : kDone;
}

}  // namespace

void AddUsageCommands(CLI::App& app, Command& command) {
  CLI::App* usage = app.add_subcommand("usage", "How much mail users store");
  usage->require_subcommand(0, 1);
  usage->footer("Example: quillonctl usage count");

  const auto options = std::make_shared<CountOptions>();
  CLI::App* count = usage->add_subcommand(
      "count", "Count the mail of users, or of all mail users, into the usage store");
  AddNames(*count, options->names);
  count->add_flag("--json", options->as_json, "print JSON");
  count->footer("Example: quillonctl usage count alice bob");
  count->callback([options, &command] {
    options->names = ReadNames(options->names);
    command = [options] { return CountUsage(*options); };
  });
}
