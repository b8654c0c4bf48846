#include "host_trust_command.h"

#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include <fmt/format.h>
#include <json/value.h>

#include <quillon/platform/host_trust.h>
#include <quillon/platform/printable.h>

#include "confirm.h"
#include "options.h"
#include "output.h"
#include "remote.h"
#include "table.h"

namespace {

using quillon::platform::ListTrustedHosts;
using quillon::platform::Printable;
using quillon::platform::TrustedHost;

constexpr char kHost[] = "HOST";

struct TrustOptions {
  std::optional<HostAddress> address;
  bool is_agreed = false;
  bool is_removal = false;
  bool is_list = false;
  bool as_json = false;

  int Port() const { return address->port == kAnyPort ? kDefaultHTTPSPort : address->port; }
  std::string Name() const { return fmt::format("{}:{}", address->host, Port()); }
};

void WriteListJson(const std::vector<TrustedHost>& hosts) {
  Json::Value list(Json::arrayValue);
  for (const TrustedHost& known : hosts) {
    Json::Value entry;
    entry["host"] = known.host;
    entry["port"] = known.port;
    entry["key"] = known.fingerprint;
    list.append(entry);
  }
  Json::Value document;
  document["hosts"] = list;
  WriteJson(document);
}

void WriteListTable(const std::vector<TrustedHost>& hosts) {
  Table table({{kHost, Table::Align::kLeft}, {"KEY", Table::Align::kLeft}});
  for (const TrustedHost& known : hosts) {
    table.AddRow({{fmt::format("{}:{}", Printable(known.host), known.port)}, {known.fingerprint}});
  }
  fmt::memory_buffer out;
  table.AppendTo(out);
  WriteOutput({out.data(), out.size()});
}

int List(const TrustOptions& options) {
  if (options.as_json) {
    WriteListJson(ListTrustedHosts());
  } else {
    WriteListTable(ListTrustedHosts());
  }
  return kDone;
}

int Remove(const TrustOptions& options) {
  if (!quillon::platform::ForgetHost(options.address->host, options.Port())) {
    throw std::runtime_error(fmt::format("no key of {} is known", options.Name()));
  }
  WriteOutput(fmt::format("the key of {} is not trusted any more\n", options.Name()));
  return kDone;
}

int Trust(const TrustOptions& options) {
  const auto known = quillon::platform::RememberedHostKey(options.address->host, options.Port());
  const std::string key = quillon::platform::FetchHostKey(options.address->host, options.Port());
  WriteOutput(fmt::format("{} has the key {}\n", options.Name(), key));
  if (known == key) {
    WriteOutput("this key is trusted already\n");
    return kDone;
  }
  if (known) {
    WriteOutput(fmt::format("which is NOT the key that is trusted: {}\n", *known));
  }
  if (!options.is_agreed &&
      !IsAgreed("Compare it with the key that the host itself shows. Trust it?")) {
    throw std::runtime_error("the key is not trusted");
  }
  quillon::platform::TrustHost(options.address->host, options.Port(), key);
  WriteOutput(fmt::format("{} is trusted with this key, and with no other\n", options.Name()));
  return kDone;
}

int Run(const TrustOptions& options) {
  if (options.is_list) {
    return List(options);
  }
  return options.is_removal ? Remove(options) : Trust(options);
}

void Check(const TrustOptions& options) {
  if (options.is_list == options.address.has_value()) {
    throw CLI::RequiredError("either HOST or --list is required", CLI::ExitCodes::RequiredError);
  }
  if (!options.is_list && !options.is_removal && !options.is_agreed && !CanAsk()) {
    throw CLI::RequiredError("--yes is required where nobody can be asked",
                             CLI::ExitCodes::RequiredError);
  }
}

}  // namespace

void AddHostTrust(CLI::App& host, Command& command) {
  const auto options = std::make_shared<TrustOptions>();
  CLI::App* trust =
      host.add_subcommand("trust", "Show the key of a host, and accept it from now on");
  AddParsed(*trust, kHost, options->address, ParseHost, "host, and port unless it is 5001")
      ->type_name("");
  trust->add_flag("--yes", options->is_agreed, "do not ask; needed where there is no terminal");
  CLI::Option* remove =
      trust->add_flag("--remove", options->is_removal, "do not trust the key of the host any more");
  CLI::Option* list = trust->add_flag("--list", options->is_list, "show all keys that are trusted");
  list->excludes(remove);
  trust->add_flag("--json", options->as_json, "print the list as JSON")->needs(list);
  trust->footer("Example: quillonctl host trust mail2");
  trust->callback([options, &command] {
    Check(*options);
    command = [options] { return Run(*options); };
  });
}
