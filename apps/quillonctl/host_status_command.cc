#include "host_status_command.h"

#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include <fmt/format.h>
#include <json/value.h>

#include <quillon/platform/printable.h>
#include <quillon/platform/utilization.h>
#include <velamailserver/utils.h>

#include "number.h"
#include "options.h"
#include "output.h"
#include "progress.h"
#include "size.h"
#include "table.h"

namespace {

constexpr char kHosts[] = "HOST";
constexpr char kThisHost[] = "this host";
constexpr unsigned kDefaultPause = 2;  // seconds

struct StatusOptions {
  std::vector<std::string> names;  // as they were given
  std::vector<std::string> hosts;  // as the library wants them
  std::optional<unsigned> pause;   // seconds, when it is asked for again and again
  bool as_json = false;
};

// Nothing when the figures cannot be had. An answer may be anything.
std::optional<Json::Value> FiguresOf(const std::string& host, const std::string& account,
                                     const std::string& password) {
  Json::Value figures;
  try {
    if (resourceInfoGetByWebAPI(host, account, password, figures) == 0) {
      return figures;
    }
  } catch (const Json::Exception& error) {
    WriteError(fmt::format("{}: {}", host, error.what()));
  }
  return std::nullopt;
}

Json::Value Entry(const std::string& name, const std::optional<Json::Value>& figures) {
  Json::Value entry = figures.value_or(Json::Value(Json::objectValue));
  entry["host"] = name;
  entry["reachable"] = figures.has_value();
  return entry;
}

// This process has taken no sample yet, and with one alone the figures would be averages since the
// start of the host.
void SampleThisHost() {
  quillon::platform::SampleUtilization();
  std::this_thread::sleep_for(std::chrono::milliseconds(600));
  quillon::platform::SampleUtilization();
}

// A host that cannot be reached takes 20 seconds, so it is shown who is being asked.
Json::Value Ask(const StatusOptions& options, RemoteOptions& remote) {
  Json::Value entries(Json::arrayValue);
  if (options.hosts.empty()) {
    SampleThisHost();
    entries.append(Entry(kThisHost, FiguresOf("", "", "")));
  }
  for (std::size_t i = 0; i < options.hosts.size(); ++i) {
    const std::string& password = remote.Password().Get();
    const Progress progress;
    progress.Show(fmt::format("asking {} ({} of {})",
                              quillon::platform::Printable(options.names[i]), i + 1,
                              options.hosts.size()));
    entries.append(Entry(options.names[i], FiguresOf(options.hosts[i], remote.account, password)));
  }
  return entries;
}

std::string Percent(const Json::Value& figure) { return fmt::format("{}%", figure.asInt()); }

std::string Rate(const Json::Value& figure) {
  return figure.isNull()
             ? "-"
             : FormatSize(static_cast<unsigned long long>(std::max(figure.asInt(), 0))) + "/s";
}

// The port is whatever the host has answered.
std::string Port(const Json::Value& port) {
  if (!port.isInt()) {
    return "-";
  }
  return port.asInt() == 0 ? "off" : fmt::to_string(port.asInt());
}

void WriteTable(const Json::Value& entries) {
  Table table({{kHosts, Table::Align::kLeft},
               {"CPU", Table::Align::kRight},
               {"MEMORY", Table::Align::kRight},
               {"UPLOAD", Table::Align::kRight},
               {"DOWNLOAD", Table::Align::kRight},
               {"PORT", Table::Align::kRight}});
  for (const Json::Value& entry : entries) {
    const std::string name = entry["host"].asString();
    if (entry["reachable"].asBool()) {
      table.AddRow({{name},
                    {Percent(entry["cpu"])},
                    {Percent(entry["ram"])},
                    {Rate(entry["network_upload"])},
                    {Rate(entry["network_download"])},
                    {Port(entry["http_port"])}});
    } else {
      table.AddRow({{name}, {"unreachable"}, {"-"}, {"-"}, {"-"}, {"-"}});
    }
  }
  fmt::memory_buffer out;
  table.AppendTo(out);
  WriteOutput({out.data(), out.size()});
}

int ReportUnreachable(const Json::Value& entries) {
  const auto count = std::count_if(entries.begin(), entries.end(), [](const Json::Value& entry) {
    return !entry["reachable"].asBool();
  });
  if (count == 0) {
    return kDone;
  }
  WriteError(fmt::format("{} of {} hosts did not give their figures, the mail log has the reason",
                         count, entries.size()));
  return kFailed;
}

void ClearTerminal() {
  if (::isatty(STDOUT_FILENO) == 1) {
    WriteOutput("\x1b[H\x1b[2J");
  }
}

int ShowOnce(const StatusOptions& options, RemoteOptions& remote) {
  const Json::Value entries = Ask(options, remote);
  if (options.pause) {
    ClearTerminal();
  }
  if (options.as_json) {
    Json::Value document;
    document["hosts"] = entries;
    WriteJson(document);
  } else {
    WriteTable(entries);
  }
  return ReportUnreachable(entries);
}

// To be ended by a signal.
int Show(const StatusOptions& options, RemoteOptions& remote) {
  while (options.pause) {
    ShowOnce(options, remote);
    std::this_thread::sleep_for(std::chrono::seconds(*options.pause));
  }
  return ShowOnce(options, remote);
}

unsigned ParsePause(const std::string& text) {
  constexpr unsigned kLongest = 86400;
  const auto pause = static_cast<unsigned>(ParseWholeNumber(text, kLongest));
  if (pause == 0) {
    throw std::invalid_argument("the pause is 1 second at least");
  }
  return pause;
}

// The library looks for the web server on its default ports only, of either protocol.
void TakeHosts(StatusOptions& options, const RemoteOptions& remote) {
  if (!remote.protocol.empty()) {
    throw CLI::ValidationError("--protocol", "the status is asked for over whatever answers");
  }
  for (const std::string& name : options.names) {
    remote.RequireAccount();
    const HostAddress address = Parsed(kHosts, name, ParseHost);
    if (address.port != kAnyPort) {
      throw CLI::ValidationError(kHosts, fmt::format("[{}]: give the host without a port", name));
    }
    options.hosts.push_back(address.host);
  }
}

}  // namespace

void AddHostStatus(CLI::App& host, RemoteOptions& remote, Command& command) {
  const auto options = std::make_shared<StatusOptions>();
  CLI::App* status = host.add_subcommand(
      "status", "Show the load of hosts, of those on the usual ports, or of this one");
  status->add_option(kHosts, options->names, "hosts; none for this one")->type_name("");
  status
      ->add_option_function<std::string>(
          "--watch",
          [options](const std::string& text) {
            options->pause = text.empty() ? kDefaultPause : Parsed("--watch", text, ParsePause);
          },
          "show it again every so many seconds, 2 by default")
      ->expected(0, 1)
      ->type_name("[SECONDS]");
  status->add_flag("--json", options->as_json, "print JSON");
  status->footer("Example: quillonctl host status mail1 mail2 --account boss --watch 5");
  status->callback([options, &remote, &command] {
    TakeHosts(*options, remote);
    command = [options, &remote] { return Show(*options, remote); };
  });
}
