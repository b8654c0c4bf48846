#include "host_batch_command.h"

#include <memory>
#include <set>
#include <stdexcept>
#include <string>
#include <system_error>
#include <utility>
#include <vector>

#include <fmt/format.h>
#include <json/value.h>

#include <quillon/platform/secret.h>
#include <velamailserver/utils.h>

#include "api_call.h"
#include "input.h"
#include "json_text.h"
#include "output.h"
#include "password.h"

namespace {

using quillon::platform::Wipe;

// The calls of a batch, whose passwords are overwritten at the end.
class Batch {
 public:
  Batch() = default;
  Batch(const Batch&) = delete;
  Batch& operator=(const Batch&) = delete;
  ~Batch() {
    for (WebAPIParams& call : calls) {
      Wipe(call.password);
    }
  }

  std::vector<WebAPIParams> calls;
};

Json::Value ParseList(const std::string& text) {
  auto list = ParseJson(text);
  if (!list || !list->isArray()) {
    throw std::runtime_error("is not a JSON list of calls");
  }
  return *std::move(list);
}

// A member that need not be there.
std::string Text(const Json::Value& entry, const char* key) {
  const Json::Value& text = entry[key];
  if (!text.isNull() && !text.isString()) {
    throw std::runtime_error(fmt::format("\"{}\" is not a text", key));
  }
  return text.asString();
}

void CheckMembers(const Json::Value& entry) {
  static const std::set<std::string> known = {"host", "account",       "protocol",
                                              "port", "password_file", "request"};
  if (!entry.isObject()) {
    throw std::runtime_error("is not an object");
  }
  for (const std::string& member : entry.getMemberNames()) {
    if (!known.contains(member)) {
      throw std::runtime_error(fmt::format("\"{}\" is not known", member));
    }
  }
}

// What the library would end the whole batch for.
void CheckRequest(const Json::Value& request) {
  if (!request.isObject() || !request["api"].isString() || !request["method"].isString() ||
      !request["version"].isInt()) {
    throw std::runtime_error(
        "\"request\" needs the texts \"api\" and \"method\" and a \"version\"");
  }
}

std::string AccountOf(const Json::Value& entry, const RemoteOptions& remote) {
  std::string account = entry.isMember("account") ? Text(entry, "account") : remote.account;
  // Without one the call would be made on this host.
  if (account.empty()) {
    throw std::runtime_error("has no account, and there is no --account");
  }
  return account;
}

std::string ProtocolOf(const Json::Value& entry, const RemoteOptions& remote) {
  std::string protocol = entry.isMember("protocol") ? Text(entry, "protocol") : remote.protocol;
  if (!protocol.empty() && protocol != kHTTP && protocol != kHTTPS) {
    throw std::runtime_error("\"protocol\" is neither http nor https");
  }
  return protocol;
}

HostAddress AddressOf(const Json::Value& entry) {
  HostAddress address = ParseHost(Text(entry, "host"));
  if (entry.isMember("port")) {
    address.port = ParsePort(entry["port"].isInt() ? entry["port"].asString() : "");
  }
  return address;
}

WebAPIParams ParseCall(const Json::Value& entry, const RemoteOptions& remote) {
  CheckMembers(entry);
  CheckRequest(entry["request"]);
  const Destination server = WebServerAt(AddressOf(entry), ProtocolOf(entry, remote));
  WebAPIParams call;
  call.host = server.host;
  call.account = AccountOf(entry, remote);
  call.protocol = server.protocol;
  call.port = server.port;
  call.request = entry["request"];
  return call;
}

// The whole list is looked at before the first call is made or a password asked for.
void ParseCalls(const Json::Value& list, const RemoteOptions& remote, Batch& batch) {
  for (const Json::Value& entry : list) {
    try {
      batch.calls.push_back(ParseCall(entry, remote));
    } catch (const std::exception& error) {
      throw std::runtime_error(fmt::format("entry {}: {}", batch.calls.size() + 1, error.what()));
    }
  }
}

void AddPasswords(const Json::Value& list, RemoteOptions& remote, Batch& batch) {
  for (Json::ArrayIndex i = 0; i < list.size(); ++i) {
    const std::string file = Text(list[i], "password_file");
    batch.calls[i].password = file.empty() ? remote.Password().Get() : ReadPasswordFile(file).Get();
  }
}

// The answers to all calls, those that were not made any more included.
int Report(const Batch& batch) {
  Json::Value responses(Json::arrayValue);
  std::size_t failed = 0;
  for (const WebAPIParams& call : batch.calls) {
    responses.append(call.response);
    failed += IsSuccess(call.response) ? 0 : 1;
  }
  WriteJson(responses);
  if (failed == 0) {
    return kDone;
  }
  WriteError(fmt::format("{} of {} calls failed", failed, batch.calls.size()));
  return kFailed;
}

int CallAll(const std::string& file, RemoteOptions& remote) {
  Batch batch;
  try {
    const Json::Value list = ParseList(ReadInput(file));
    ParseCalls(list, remote, batch);
    AddPasswords(list, remote, batch);
  } catch (const std::system_error&) {
    throw;  // names its file itself
  } catch (const std::exception& error) {
    throw std::runtime_error(fmt::format("{}: {}", file, error.what()));
  }
  try {
    multiWebAPIRequest(batch.calls);
  } catch (const Json::Exception& error) {
    WriteError(fmt::format("an answer ended the batch: {}", error.what()));
  }
  return Report(batch);
}

}  // namespace

void AddHostBatch(CLI::App& host, RemoteOptions& remote, Command& command) {
  const auto file = std::make_shared<std::string>();
  CLI::App* batch = host.add_subcommand(
      "batch", "Make calls of APIs on hosts, one after the other, and print their answers");
  batch
      ->add_option("FILE", *file,
                   "a JSON list of objects with \"host\" and \"request\", and, unless the options "
                   "say it, \"account\", \"protocol\", \"port\" and \"password_file\"; - reads "
                   "standard input")
      ->type_name("")
      ->required();
  batch->footer(
      "Example: quillonctl host batch calls.json --account boss, with calls.json like\n"
      "  [{\"host\": \"mail2\", \"request\": {\"api\": \"Quillon.MailServer.User\", \"version\": "
      "1,\n"
      "    \"method\": \"list\", \"params\": {\"limit\": 10}}}]");
  batch->callback(
      [file, &remote, &command] { command = [file, &remote] { return CallAll(*file, remote); }; });
}
