#include "host_commands.h"

#include <algorithm>
#include <limits>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include <fmt/format.h>
#include <json/value.h>

#include <velamailserver/utils.h>

#include "api_call.h"
#include "host_batch_command.h"
#include "host_status_command.h"
#include "host_trust_command.h"
#include "input.h"
#include "json_text.h"
#include "number.h"
#include "options.h"
#include "output.h"
#include "progress.h"

namespace {

// The web servers that a probe asks.
std::vector<Destination> ServersOf(const HostAddress& address, const std::string& protocol) {
  if (address.port != kAnyPort || !protocol.empty()) {
    return {WebServerAt(address, protocol)};
  }
  return {WebServerAt(address, kHTTP), WebServerAt(address, kHTTPS)};
}

struct ProbeOptions {
  HostAddress address;
  bool as_json = false;
};

struct ProbeResult {
  Destination server;
  bool is_active;
};

std::vector<ProbeResult> ProbeServers(const ProbeOptions& options, const RemoteOptions& remote) {
  std::vector<ProbeResult> results;
  for (const Destination& server : ServersOf(options.address, remote.protocol)) {
    const Progress progress;
    progress.Show(fmt::format("waiting for {}:{}", server.host, server.port));
    results.push_back({server, IsPortActive(server.host, server.protocol, server.port)});
  }
  return results;
}

void WriteProbes(const std::vector<ProbeResult>& results) {
  for (const auto& [server, is_active] : results) {
    WriteOutput(fmt::format("{}://{}:{} {}\n", server.protocol, server.host, server.port,
                            is_active ? "answers" : "does not answer"));
  }
}

void WriteProbesAsJson(const std::vector<ProbeResult>& results) {
  Json::Value document;
  for (const auto& [server, is_active] : results) {
    Json::Value entry;
    entry["host"] = server.host;
    entry["protocol"] = server.protocol;
    entry["port"] = server.port;
    entry["answers"] = is_active;
    document["servers"].append(entry);
  }
  WriteJson(document);
}

int Probe(const ProbeOptions& options, const RemoteOptions& remote) {
  const auto results = ProbeServers(options, remote);
  if (options.as_json) {
    WriteProbesAsJson(results);
  } else {
    WriteProbes(results);
  }
  return std::any_of(results.begin(), results.end(),
                     [](const ProbeResult& result) { return result.is_active; })
             ? kDone
             : kFailed;
}

void AddProbe(CLI::App& host, RemoteOptions& remote, Command& command) {
  const auto options = std::make_shared<ProbeOptions>();
  CLI::App* probe = host.add_subcommand("probe", "See whether a host's web server answers");
  AddParsed(*probe, "HOST", options->address, ParseHost,
            "host, and port unless it is one of the usual two")
      ->type_name("")
      ->required();
  probe->add_flag("--json", options->as_json, "print JSON");
  probe->footer("Example: quillonctl host probe mail2");
  probe->callback([options, &remote, &command] {
    command = [options, &remote] { return Probe(*options, remote); };
  });
}

struct CallOptions {
  HostAddress address;
  std::string api;
  std::string method;
  Json::Value params;
  int version = 1;
  long timeout = kDefaultTimeout;
  std::optional<std::pair<std::string, std::string>> upload;  // key and path
};

int CallHost(const CallOptions& options, RemoteOptions& remote) {
  Json::Value request;
  request["api"] = options.api;
  request["version"] = options.version;
  request["method"] = options.method;
  request["params"] = options.params;
  std::optional<Upload> upload;
  if (options.upload) {
    upload = Upload{options.upload->first, ReadInput(options.upload->second)};
  }
  const Json::Value envelope =
      Send(DestinationAt(options.address, remote), request, upload, options.timeout);
  WriteJson(envelope);
  if (!IsSuccess(envelope)) {
    throw ErrorOf(envelope);
  }
  return kDone;
}

int ParseVersion(const std::string& text) {
  return static_cast<int>(ParseWholeNumber(text, std::numeric_limits<int>::max()));
}

long ParseTimeout(const std::string& text) {
  constexpr unsigned long long kLongest = 86400;
  return static_cast<long>(ParseWholeNumber(text, kLongest));
}

Json::Value ParseParams(const std::string& text) {
  auto params = ParseJson(text);
  if (!params || !params->isObject()) {
    throw std::invalid_argument("is not a JSON object");
  }
  return *std::move(params);
}

std::pair<std::string, std::string> ParseUpload(const std::string& text) {
  const auto equals = text.find('=');
  if (equals == std::string::npos || equals == 0) {
    throw std::invalid_argument(fmt::format("[{}] is not KEY=FILE", text));
  }
  return {text.substr(0, equals), text.substr(equals + 1)};
}

void AddCall(CLI::App& host, RemoteOptions& remote, Command& command) {
  const auto options = std::make_shared<CallOptions>();
  CLI::App* call = host.add_subcommand("call", "Call an API of a host and print its answer");
  AddParsed(*call, "HOST", options->address, ParseHost, "host, and port unless it is a usual one")
      ->type_name("")
      ->required();
  call->add_option("API", options->api, "name of the API")->type_name("")->required();
  call->add_option("METHOD", options->method, "name of its method")->type_name("")->required();
  AddParsed(*call, "--params", options->params, ParseParams, "parameters, a JSON object")
      ->type_name("JSON");
  AddParsed(*call, "--version", options->version, ParseVersion, "version of the API, 1 by default")
      ->type_name("N");
  AddParsed(*call, "--upload", options->upload, ParseUpload,
            "send a file as this parameter; - reads it from standard input")
      ->type_name("KEY=FILE");
  AddParsed(*call, "--timeout", options->timeout, ParseTimeout,
            "seconds to wait for the answer, 60 by default and 0 for as long as it takes")
      ->type_name("S");
  call->footer(
      "Example: quillonctl host call mail2 Quillon.MailServer.User list --account boss "
      "--params '{\"limit\": 10}'");
  call->callback([options, &remote, &command] {
    remote.RequireAccount();
    command = [options, &remote] { return CallHost(*options, remote); };
  });
}

}  // namespace

void AddHostCommands(CLI::App& app, RemoteOptions& remote, Command& command) {
  CLI::App* host = app.add_subcommand(kHostCommands, "The hosts of the cluster");
  host->require_subcommand(0, 1);
  host->footer("Example: quillonctl host status mail1 mail2 --account boss");
  AddHostStatus(*host, remote, command);
  AddProbe(*host, remote, command);
  AddCall(*host, remote, command);
  AddHostBatch(*host, remote, command);
  AddHostTrust(*host, command);
}
