#include "no_owner_commands.h"

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <limits>
#include <memory>
#include <string>
#include <thread>

#include <fmt/format.h>
#include <json/value.h>

#include <quillon/platform/printable.h>

#include "api_call.h"
#include "count.h"
#include "number.h"
#include "options.h"
#include "output.h"
#include "progress.h"
#include "removal.h"
#include "size.h"
#include "table.h"

namespace {

using quillon::platform::Printable;

constexpr char kAPI[] = "Quillon.MailServer.NoOwner";
constexpr char kUid[] = "UID";

constexpr char kNoun[] = "ownerless mail directory";
constexpr char kPlural[] = "ownerless mail directories";

std::string CountOfMaildirs(unsigned long long count) { return Count(count, kNoun, kPlural); }

struct ListOptions {
  std::string match;
  std::string sort = "name";
  bool is_descending = false;
  Page page;
  bool as_json = false;
};

Json::Value ListParams(const ListOptions& options) {
  Json::Value params;
  params["keyword"] = options.match;
  params["sort_by"] = options.sort;
  params["sort_direction"] = options.is_descending ? "DESC" : "ASC";
  SetPage(options.page, params);
  return params;
}

void WriteList(const Json::Value& data) {
  const Json::Value& maildirs = data["no_owner_list"];
  Table table({{kUid, Table::Align::kRight},
               {"NAME", Table::Align::kLeft},
               {"USAGE", Table::Align::kRight}});
  bool is_complete = true;
  for (const Json::Value& maildir : maildirs) {
    const bool is_counted = maildir["counted"].asBool();
    is_complete = is_complete && is_counted;
    table.AddRow({{Printable(maildir["uid"].asString())},
                  {Printable(maildir["name"].asString())},
                  {is_counted ? FormatSize(maildir["usage"].asUInt64()) : "-"}});
  }
  const unsigned long long total = data["total"].asUInt64();
  WriteTable(table,
             fmt::format("{}{}, {}{}", PartOf(maildirs.size(), total), CountOfMaildirs(total),
                         FormatSize(TotalUsage(maildirs)), is_complete ? "" : " counted so far"));
  if (!is_complete) {
    WriteOutput("Those without a usage are being counted now: ask again in a while.\n");
  }
}

int ListMaildirs(const ListOptions& options) {
  const Json::Value data = Call(kAPI, "list", ListParams(options));
  if (options.as_json) {
    WriteJson(data);
  } else {
    WriteList(data);
  }
  return kDone;
}

void AddList(CLI::App& no_owner, Command& command) {
  const auto options = std::make_shared<ListOptions>();
  CLI::App* list = no_owner.add_subcommand(
      "list", "Show the mail directories that belong to nobody, and how much they hold");
  list->add_option("--match", options->match, "only those with this word in their name")
      ->type_name("WORD");
  list->add_option("--sort", options->sort, "order of the directories")
      ->check(CLI::IsMember({"name", "usage"}))
      ->capture_default_str();
  list->add_flag("--desc", options->is_descending, "highest first");
  AddPage(*list, options->page, "directories");
  list->add_flag("--json", options->as_json, "print JSON");
  list->footer("Example: quillonctl no-owner list --sort usage --desc --limit 20");
  list->callback([options, &command] { command = [options] { return ListMaildirs(*options); }; });
}

struct RefreshOptions {
  bool is_waiting = false;
  bool as_json = false;
};

// Waits until a recount is finished that began at a generation. Answers whether it was: when nobody
// is counting any more, nobody will finish it.
bool WaitForRecount(unsigned long long generation) {
  using std::chrono::steady_clock;
  // The recount takes the lock a moment after it was started.
  constexpr std::chrono::seconds kPatience{2};
  // Short recounts are not waited for long, and long ones not asked for often.
  constexpr steady_clock::duration kLongestPause = std::chrono::seconds(1);
  steady_clock::duration pause = std::chrono::milliseconds(20);

  for (auto deadline = steady_clock::now() + kPatience;;) {
    const Json::Value status = Call(kAPI, "status", Json::Value());
    const bool is_running = status["running"].asBool();
    const bool is_finished = status["generation"].asUInt64() > generation;
    // Until the lock is free again, too, for whoever counts next.
    if (is_finished && !is_running) {
      return true;
    }
    if (is_running && !is_finished) {
      deadline = steady_clock::now() + kPatience;
    } else if (steady_clock::now() >= deadline) {
      return is_finished;
    }
    std::this_thread::sleep_for(pause);
    pause = std::min(2 * pause, kLongestPause);
  }
}

// Waits for the recount that an answer tells of; it says then whether it was finished.
void Wait(Json::Value& answer) {
  const Progress progress;
  progress.Show("counting " + CountOfMaildirs(answer["maildirs"].asUInt64()));
  const bool is_finished =
      answer["maildirs"].asUInt64() == 0 || WaitForRecount(answer["generation"].asUInt64());
  answer["finished"] = is_finished;
  if (!is_finished) {
    answer["reason"] = "the recount was skipped or has failed; the mail log tells why";
  }
}

std::string RefreshSummary(const Json::Value& answer) {
  const unsigned long long count = answer["maildirs"].asUInt64();
  return !answer.isMember("finished")
             ? fmt::format("{} being counted in the background\n", CountOfMaildirs(count))
             : fmt::format("{} counted\n", CountOfMaildirs(count));
}

int Refresh(const RefreshOptions& options) {
  Json::Value answer = Call(kAPI, "refresh", Json::Value());
  if (options.is_waiting && !answer["skipped"].asBool()) {
    Wait(answer);
  }
  const bool has_failed = answer.isMember("reason");
  if (options.as_json) {
    WriteJson(answer);
  } else if (!has_failed) {
    WriteOutput(RefreshSummary(answer));
  }
  if (has_failed) {
    WriteError("nothing was recounted: " + answer["reason"].asString());
  }
  return has_failed ? kFailed : kDone;
}

void AddRefresh(CLI::App& no_owner, Command& command) {
  const auto options = std::make_shared<RefreshOptions>();
  CLI::App* refresh = no_owner.add_subcommand(
      "refresh", "Count anew how much the mail directories hold that belong to nobody");
  refresh->add_flag("--wait", options->is_waiting, "end when they are counted");
  refresh->add_flag("--json", options->as_json, "print JSON");
  refresh->footer("Example: quillonctl no-owner refresh --wait");
  refresh->callback([options, &command] { command = [options] { return Refresh(*options); }; });
}

std::uint32_t ParseUid(const std::string& text) {
  return static_cast<std::uint32_t>(
      ParseWholeNumber(text, std::numeric_limits<std::uint32_t>::max()));
}

Removal RemovalOfOwnerless() {
  Removal removal;
  removal.api = kAPI;
  removal.method = "remove";
  removal.parameter = "uids";
  removal.columns = {{kUid, Table::Align::kRight, "uid"}, {"NAME", Table::Align::kLeft, "name"}};
  removal.noun = kNoun;
  removal.plural = kPlural;
  removal.without = "unknown";
  removal.without_text = "no ownerless mail directory of uid ";
  removal.needs_directory = true;
  return removal;
}

void AddRemove(CLI::App& no_owner, Command& command) {
  const auto options = std::make_shared<RemovalOptions>();
  CLI::App* remove = no_owner.add_subcommand(
      "remove", "Remove mail directories that belong to nobody, with all mail in them, for good");
  remove
      ->add_option(kUid, options->arguments,
                   "uids whose directories to remove; - reads them from standard input")
      ->type_name("")
      ->required();
  AddRemovalOptions(*remove, *options);
  remove->footer("Example: quillonctl no-owner remove --dry-run 1044 1051");
  remove->callback([options, &command] {
    RequireAgreement(*options);
    for (const std::string& text : ReadArguments(kUid, options->arguments)) {
      options->owners.append(Json::UInt{Parsed(kUid, text, ParseUid)});
    }
    command = [options] { return Remove(RemovalOfOwnerless(), *options); };
  });
}

}  // namespace

void AddNoOwnerCommands(CLI::App& app, Command& command) {
  CLI::App* no_owner = app.add_subcommand("no-owner", "Mail directories that belong to nobody");
  no_owner->require_subcommand(0, 1);
  no_owner->footer("Example: quillonctl no-owner list --sort usage --desc");
  AddList(*no_owner, command);
  AddRefresh(*no_owner, command);
  AddRemove(*no_owner, command);
}
