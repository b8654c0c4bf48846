#include "doctor/doctor_command.h"

#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <map>
#include <memory>
#include <set>
#include <stdexcept>
#include <string>

#include <fmt/color.h>
#include <fmt/format.h>
#include <json/value.h>

#include "configuration_file.h"
#include "count.h"
#include "doctor/dovecot_checks.h"
#include "doctor/host_checks.h"
#include "dovecot_settings.h"
#include "output.h"

namespace {

struct DoctorOptions {
  std::string dovecot;
  bool names_dovecot = false;
  bool as_json = false;
};

enum class State { kGood, kNote, kLeftOut, kFailed };

struct Finding {
  std::string name;
  State state;
  std::string text;
  std::string remedy;
};

// `failed` are the checks before it that did not succeed, or were left out for want of another.
Finding Examine(const Check& check, const std::set<std::string>& failed) {
  const auto missing = std::find_if(check.needs.begin(), check.needs.end(),
                                    [&](const auto& need) { return failed.contains(need); });
  if (missing != check.needs.end()) {
    return {check.name, State::kLeftOut, "mend first: " + *missing, ""};
  }
  try {
    return {check.name, State::kGood, check.run(), ""};
  } catch (const Note& note) {
    return {check.name, State::kNote, note.what(), ""};
  } catch (const Problem& problem) {
    return {check.name, State::kFailed, problem.what(), problem.remedy()};
  } catch (const std::exception& error) {
    return {check.name, State::kFailed, error.what(), check.remedy};
  }
}

std::vector<Check> ChecksOf(const DoctorOptions& options, const std::string& source) {
  std::vector<Check> checks = HostChecks();
  if (options.names_dovecot || std::filesystem::exists(DovecotSettingsFile(options.dovecot))) {
    const auto dovecot = DovecotChecks(options.dovecot, source);
    checks.insert(checks.end(), dovecot.begin(), dovecot.end());
  } else {
    const std::string why = "has no settings of ours in " + options.dovecot;
    checks.push_back({"dovecot", [why]() -> std::string { throw Note(why); }, ""});
  }
  return checks;
}

const char* Word(State state) {
  switch (state) {
    case State::kGood:
      return "ok";
    case State::kNote:
      return "note";
    case State::kLeftOut:
      return "-";
    case State::kFailed:
      return "failed";
  }
  return "";
}

void WriteFinding(const Finding& finding) {
  const bool has_colour = OutputHasColour();
  const auto style = [&](fmt::color colour) {
    return has_colour ? fmt::fg(colour) : fmt::text_style();
  };
  const std::map<State, fmt::text_style> styles = {{State::kGood, style(fmt::color::green)},
                                                   {State::kNote, style(fmt::color::gold)},
                                                   {State::kLeftOut, style(fmt::color::gold)},
                                                   {State::kFailed, style(fmt::color::red)}};
  std::string line = fmt::format(
      "{}  {}: {}\n", fmt::format(styles.at(finding.state), "{:<6}", Word(finding.state)),
      finding.name, finding.text);
  if (!finding.remedy.empty()) {
    line += fmt::format("{:6}  -> {}\n", "", finding.remedy);
  }
  WriteOutput(line);
}

Json::Value ToJson(const Finding& finding) {
  Json::Value entry;
  entry["check"] = finding.name;
  entry["state"] = Word(finding.state);
  entry["text"] = finding.text;
  if (!finding.remedy.empty()) {
    entry["remedy"] = finding.remedy;
  }
  return entry;
}

int Examine(const DoctorOptions& options, const std::string& source) {
  if (::geteuid() != 0) {
    throw std::runtime_error("doctor looks at what others may do: run it as root");
  }
  Json::Value document;
  document["checks"] = Json::arrayValue;
  unsigned failed = 0;
  std::set<std::string> unsuccessful;
  for (const Check& check : ChecksOf(options, source)) {
    const Finding finding = Examine(check, unsuccessful);
    failed += finding.state == State::kFailed ? 1 : 0;
    if (finding.state == State::kFailed || finding.state == State::kLeftOut) {
      unsuccessful.insert(finding.name);
    }
    if (options.as_json) {
      document["checks"].append(ToJson(finding));
    } else {
      WriteFinding(finding);
    }
  }
  document["failed"] = failed;
  if (options.as_json) {
    WriteJson(document);
  } else {
    WriteOutput(failed == 0 ? "nothing is wrong\n"
                            : Count(failed, "check has failed", "checks have failed") + "\n");
  }
  return failed == 0 ? kDone : kFailed;
}

}  // namespace

void AddDoctorCommand(CLI::App& app, const CLI::Option& configuration, Command& command) {
  const auto options = std::make_shared<DoctorOptions>();
  CLI::App* doctor = app.add_subcommand(
      kDoctor, "Check accounts, stores, folders and the mail server, and say what to do");
  const CLI::Option* folder =
      doctor->add_option("--dovecot", options->dovecot, "Dovecot's folder of settings")
          ->type_name("DIR")
          ->default_val(kDovecotFolder);
  doctor->add_flag("--json", options->as_json, "print JSON");
  doctor->footer("Example: quillonctl doctor");
  doctor->callback([options, folder, &configuration, &command] {
    options->names_dovecot = folder->count() != 0;
    options->dovecot = AbsolutePath(options->dovecot);
    command = [options, &configuration] {
      return Examine(*options, ConfigurationFile(configuration));
    };
  });
}
