#include "web.h"

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include <fmt/format.h>

#include <quillon/platform/configuration.h>
#include <quillon/platform/host_trust.h>

#include "load.h"
#include "support/loopback.h"
#include "support/redis_server.h"
#include "system/large_host.h"
#include "system/web_server.h"

namespace quillon::bench {

namespace {

namespace fs = std::filesystem;

constexpr char kCall[] = R"({"api":"VELA.Core.Web.TARN","method":"get","params":null,"version":1})";
constexpr char kReport[] = R"({"api":"Quillon.MailServer.User","method":"list","version":1})";
constexpr char kPlainServer[] = "web-server-in-a-straight-line";

std::string Url(const std::string& protocol, int port) {
  return fmt::format("{}://127.0.0.1:{}", protocol, port);
}

int PortOf(const test::WebServer& server, const std::string& protocol) {
  return protocol == "http" ? server.http_port() : server.https_port();
}

// Files beside the server's own that a client needs.
void MakeClient(const test::WebServer& server) {
  const std::string file = server.folder().Write(
      "client.toml", fmt::format("[cluster]\ntrusted_hosts = \"{}/trusted-hosts\"\n"
                                 "[log]\ntarget = \"stderr\"\n",
                                 server.folder().path().string()));
  platform::UseConfiguration(platform::LoadConfiguration(file));
  server.folder().Write("password", test::kWebPassword);
}

// A host whose key is trusted is not called over plain HTTP any more.
void TrustServer(const test::WebServer& server) {
  const std::string fingerprint = platform::FetchHostKey("127.0.0.1", server.https_port());
  platform::TrustHost("127.0.0.1", server.https_port(), fingerprint);
  server.folder().Write("fingerprint", fingerprint);
}

// The plain web server on ports of its own, with the same certificate and the same answer to
// `kCall`.
class PlainServer {
 public:
  PlainServer(std::string program, const test::WebServer& ours)
      : http_port_(test::FreePort()),
        https_port_(test::FreePort()),
        answer_(ours.folder().Write("answer", ours.Call(ours.Token("boss"), kCall).text)),
        certificate_(ours.folder() / "state/certificate.pem"),
        key_(ours.folder() / "state/private-key.pem"),
        program_(std::move(program)) {}

  Command CommandLine() const {
    return {program_, std::to_string(http_port_), std::to_string(https_port_), certificate_, key_,
            answer_};
  }
  std::string UrlOf(const std::string& protocol) const {
    return Url(protocol, protocol == "http" ? http_port_ : https_port_);
  }

 private:
  int http_port_;
  int https_port_;
  std::string answer_;
  std::string certificate_;
  std::string key_;
  std::string program_;
};

// Resident memory of a process, MB.
double ResidentMb(int pid) {
  std::ifstream status(fmt::format("/proc/{}/status", pid));
  for (std::string word; status >> word;) {
    if (word == "VmRSS:") {
      double kilobytes = 0;
      status >> kilobytes;
      return kilobytes / 1024;
    }
  }
  throw std::runtime_error("a process of the web server has ended");
}

// That of the front, and of the worker that has most.
struct Resident {
  explicit Resident(const test::WebServer& server) {
    for (const int pid : server.Children(test::kWebFront)) {
      front = std::max(front, ResidentMb(pid));
    }
    for (const int pid : server.Children(test::kWebWorker)) {
      worker = std::max(worker, ResidentMb(pid));
    }
  }

  double front = 0;
  double worker = 0;
};

Runs Less(Runs runs, const Runs& part) {
  for (std::size_t i = 0; i < runs.size(); ++i) {
    runs[i].seconds -= part[i].seconds;
  }
  return runs;
}

using Loads = std::vector<Load>;

// One kind of figure of two servers, round by round.
Row CompareLoads(const std::string& what, Target target, const Loads& ours, const Loads& theirs,
                 double Load::*figure) {
  std::vector<double> our_figures;
  std::vector<double> their_figures;
  std::vector<double> ratios;
  for (std::size_t round = 0; round < ours.size(); ++round) {
    our_figures.push_back(ours[round].*figure);
    their_figures.push_back(theirs[round].*figure);
    ratios.push_back(our_figures.back() / their_figures.back());
  }
  const auto text = [](std::vector<double> figures) {
    const double median = SpreadOf(std::move(figures)).median;
    return median < 1000 ? fmt::format("{:.3f}", median) : fmt::format("{:.0f}", median);
  };
  return {what, target, SpreadOf(std::move(ratios)), text(std::move(our_figures)),
          text(std::move(their_figures))};
}

}  // namespace

void WebBench::RemoteCall() {
  const test::WebServer server("max_sessions_per_account = 1000");
  MakeClient(server);
  const std::string calls = std::to_string(sizes_.remote_calls);
  for (const std::string protocol : {"http", "https"}) {
    fmt::print(stderr, "{} calls over {}\n", calls, protocol);
    if (protocol == "https") {
      TrustServer(server);
    }
    const std::string port = std::to_string(PortOf(server, protocol));
    const std::string world = server.folder().path();
    const auto runs = RunInTurn({{Program("call-by-library"), world, protocol, port, calls},
                                 {Program("call-in-a-straight-line"), world, protocol, port, calls},
                                 {Program("derive-keys"), calls}},
                                sizes_.rounds);
    const std::string what = fmt::format("{} remote calls over {}, time", calls, protocol);
    results_.Add(what, 1.15, runs[0], runs[1], &Cost::seconds);
    results_.Add(what + ", without the keys", kNoTarget, Less(runs[0], runs[2]),
                 Less(runs[1], runs[2]), &Cost::seconds);
    results_.Add(what + ", the keys alone", kNoTarget, runs[2], runs[1], &Cost::seconds);
  }
}

void WebBench::LocalCall() {
  const std::string calls = std::to_string(sizes_.local_calls);
  fmt::print(stderr, "{} calls in this process\n", calls);
  const auto runs = RunInTurn(
      {{Program("call-locally"), "library", calls}, {Program("call-locally"), "direct", calls}},
      sizes_.rounds);
  results_.Add(fmt::format("{} local calls, time", calls), 1.1, runs[0], runs[1], &Cost::seconds);
}

void WebBench::Server() {
  const test::WebServer server;
  const PlainServer plain(Program(kPlainServer), server);
  const test::BackgroundProgram running(plain.CommandLine(), server.folder() / "plain.log");
  LoadOptions load;
  load.token_file = server.folder().Write("token", server.Token("boss"));
  load.bodies = {server.folder().Write("call", kCall)};
  load.seconds = sizes_.load_seconds;
  for (const std::string protocol : {"http", "https"}) {
    for (const int connections : {1, 16, 64}) {
      fmt::print(stderr, "load over {}, {} connections\n", protocol, connections);
      load.connections = connections;
      Loads ours;
      Loads theirs;
      for (int round = 0; round < sizes_.load_rounds; ++round) {
        load.url = Url(protocol, PortOf(server, protocol));
        ours.push_back(RunLoad(Program("post.lua"), load));
        load.url = plain.UrlOf(protocol);
        theirs.push_back(RunLoad(Program("post.lua"), load));
      }
      const std::string what = fmt::format("{} connections over {}", connections, protocol);
      results_.Add(CompareLoads(what + ", requests a second", {Target::kAtLeast, 0.4}, ours, theirs,
                                &Load::requests_per_second));
      results_.Add(CompareLoads(what + ", 99th percentile, ms", 3.0, ours, theirs, &Load::p99_ms));
    }
  }
}

// The data are as many as the demo's. A tenth of the requests reads all of it, half of them are
// over TLS.
void WebBench::Memory() {
  constexpr std::size_t kUsers = 30;
  constexpr unsigned int kFirstUid = 20001;
  constexpr double kMostMb = 20;
  const test::RedisServer redis;
  const test::WebServer server(fmt::format("[usage]\nsocket = \"{}\"\n", redis.socket()));
  test::MakeAccounts(server.folder().path(), kUsers, kFirstUid);
  test::FillStores(server.folder().path());
  LoadOptions load;
  load.token_file = server.folder().Write("token", server.Token("boss"));
  load.bodies.assign(9, server.folder().Write("call", kCall));
  load.bodies.push_back(server.folder().Write("report", kReport));
  load.connections = 16;
  const auto send = [&](unsigned long requests) {
    fmt::print(stderr, "{} requests\n", requests);
    for (const std::string protocol : {"http", "https"}) {
      load.url = Url(protocol, PortOf(server, protocol));
      for (unsigned long left = requests / 2; left > 0;) {
        load.requests = left;
        left -= std::min(left, RunLoad(Program("post.lua"), load).requests);
      }
    }
  };

  const Resident at_first(server);
  send(sizes_.requests / 10);
  const Resident early(server);
  send(sizes_.requests - sizes_.requests / 10);
  const Resident late(server);
  for (const auto& [process, figure] :
       {std::pair("front", &Resident::front), std::pair("worker", &Resident::worker)}) {
    const auto add = [&](const std::string& what, Target target, double theirs) {
      const double ratio = late.*figure / theirs;
      results_.Add(
          {fmt::format("{} after {} requests, resident, {}", process, sizes_.requests, what),
           target,
           {ratio, ratio, ratio},
           fmt::format("{:.1f} MB", late.*figure),
           fmt::format("{:.1f} MB", theirs)});
    };
    add("beside the limit", 1.0, kMostMb);
    add(fmt::format("after {}", sizes_.requests / 10), 1.05, early.*figure);
    add("at first", kNoTarget, at_first.*figure);
  }
}

void WebBench::Start() {
  fmt::print(stderr, "starting a web server\n");
  test::WebServer server;  // makes the key and the certificate
  const PlainServer plain(Program(kPlainServer), server);
  server.program().Stop();
  const auto start = [&](const std::string& url, const Command& command) {
    Command all = {Program("start-web-server"), url};
    all.insert(all.end(), command.begin(), command.end());
    return all;
  };
  const std::string https = Url("https", server.https_port());
  for (const std::string protocol : {"http", "https"}) {
    const auto runs =
        RunInTurn({start(Url(protocol, PortOf(server, protocol)), server.CommandLine()),
                   start(plain.UrlOf(protocol), plain.CommandLine())},
                  3 * sizes_.rounds);
    results_.Add(fmt::format("start until the first answer over {}", protocol), 3.0, runs[0],
                 runs[1], &Cost::seconds);
  }
  const Command command = start(https, server.CommandLine());
  const auto later = RunInTurn({command}, sizes_.rounds);
  const auto first =
      RunInTurn({command}, sizes_.rounds, [&] { fs::remove_all(server.folder() / "state"); });
  results_.Add("first start, which makes a key, beside later ones", kNoTarget, first[0], later[0],
               &Cost::seconds);
}

}  // namespace quillon::bench
