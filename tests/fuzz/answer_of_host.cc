// What the library makes of another host's answers. An input is the answer about the host's load,
// then a line "--" and the answer about its web server, which are the same when there is no such
// line. The platform's own look at an answer comes first, as it does in `CredRequestMgr::Run`.
#include <algorithm>
#include <optional>
#include <vector>

#include <velamailserver/utils.h>

#include "cred/answer_shape.h"
#include "fuzz/report.h"

namespace quillon::fuzz {
namespace {

using recording::World;

constexpr char kHost[] = "host";
constexpr char kAccount[] = "account";
constexpr char kPassword[] = "password";
constexpr int kNotCalled = 117;

Json::Value Request() {
  Json::Value request;
  request["api"] = "API";
  request["version"] = 1;
  request["method"] = "get";
  return request;
}

// Everything is given back, in its order, whatever comes of the call.
void RequireReleased(const World& world) {
  const std::vector<std::string> released = {"VELACredFree(cred)", "VELACredSessFree(session)",
                                             "~CredRequestMgr()", "~CredRequest()"};
  const auto& lines = world.transcript;
  Require(lines.size() >= released.size() &&
              std::equal(released.rbegin(), released.rend(), lines.rbegin()),
          "everything is released, in order");
}

std::ptrdiff_t Count(const World& world, std::string_view call) {
  return std::count_if(world.transcript.begin(), world.transcript.end(),
                       [&](const std::string& line) { return line.starts_with(call); });
}

struct Outcome {
  std::optional<int> code;  // none: an exception of the JSON library
  Json::Value response;
};

Outcome Call(const char* account, const char* password) {
  Outcome outcome;
  try {
    outcome.code = WebAPIRequest(kHost, account, password, Request(), outcome.response, "http", 80,
                                 -1, Json::Value());
  } catch (const Json::Exception&) {
  }
  return outcome;
}

Outcome CallOnce(World& world) {
  Outcome outcome = Call(kAccount, kPassword);
  RequireReleased(world);
  return outcome;
}

// An answer counts for the same whether it comes from another host or from this process.
void CompareWithLocal(World& world, const Outcome& remote) {
  Json::Reader parser;
  Json::Value document;
  if (!parser.parse(world.body, document, true)) {
    Require(remote.code == kNotCalled, "what does not parse is no answer");
    return;
  }
  world.api_response = document;
  const Outcome local = Call("", "");
  Require(local.code == remote.code, "local and remote answers have the same code");
  Require(test::Typed(local.response) == test::Typed(remote.response),
          "local and remote answers are the same document");
}

void CallInBatch(const Outcome& alone) {
  WebAPIParams params;
  params.host = kHost;
  params.account = kAccount;
  params.password = kPassword;
  params.protocol = "http";
  params.port = 80;
  params.request = Request();
  std::vector<WebAPIParams> batch(2, params);
  try {
    multiWebAPIRequest(batch);
  } catch (const Json::Exception&) {
    Require(!alone.code, "a batch ends only with an exception that a call alone has, too");
    return;
  }
  Require(alone.code.has_value(), "an exception ends the batch");
  for (const WebAPIParams& call : batch) {
    if (alone.code == 0) {
      Require(test::Typed(call.response) == test::Typed(alone.response),
              "a success stays as it came");
    } else {
      const Json::Value& response = call.response;
      Require(response.isObject() && response["success"] == Json::Value(false),
              "a failed call is marked as one");
    }
  }
}

void GetResources() {
  Json::Value before;
  before["mine"] = 1;
  Json::Value out = before;
  try {
    if (resourceInfoGetByWebAPI(kHost, kAccount, kPassword, out) != 0) {
      Require(out == before, "without the load nothing is set");
      return;
    }
  } catch (const Json::Exception&) {
    return;
  }
  Require(out["mine"] == 1, "other members are left alone");
  Require(out["cpu"].isInt() && out["ram"].isInt(), "the figures are whole numbers");
  Require(out.isMember("http_port"), "there is always a port");
  Require(out.isMember("network_upload") == out.isMember("network_download"),
          "the network's figures come together");
}

std::string Bounded(std::string_view body) {
  return platform::ObjectToShape(body) == nullptr ? std::string(body) : std::string();
}

}  // namespace
}  // namespace quillon::fuzz

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace quillon::fuzz;
  std::string_view input = TextOf(data, size);
  const std::string first = Bounded(Cut(input, "\n--\n"));
  const std::string second = input.empty() ? first : Bounded(input);
  World& world = recording::TheWorld();
  world = World();
  world.body = first;
  const Outcome outcome = CallOnce(world);
  CompareWithLocal(world, outcome);
  CallInBatch(outcome);
  world.bodies["VELA.Core.Web.TARN"] = second;
  GetResources();
  Require(Count(world, "VELACredAlloc") == Count(world, "VELACredFree") &&
              Count(world, "CredRequestMgr") == Count(world, "~CredRequestMgr"),
          "nothing is left of all calls");
  return 0;
}
