#include "mail_server.h"

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <map>
#include <memory>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include <fmt/format.h>
#include <json/value.h>

#include "host.h"
#include "support/parse_json.h"
#include "support/program.h"
#include "system/dovecot.h"

namespace quillon::bench {

namespace {

namespace fs = std::filesystem;

constexpr std::size_t kMessages = 3;  // of every user

// A host whose users have limits, and mail that Dovecot and the usage store know of.
struct MailHost : Host {
  explicit MailHost(std::size_t users) : Host(users) {
    test::FillStores(path());
    test::MakeMail(path(), kMessages * users, true);
    test::GiveMail(path());
    test::OpenToDovecot(folder, redis);
    Do({"usage", "count"});
    Do({"quota", "sync"});
    Do({"export", "dovecot", "--output", folder / "dovecot"});
    dovecot = std::make_unique<test::Dovecot>(folder / "dovecot");
  }

  Command Doveadm(const Command& arguments) const {
    Command command = {"doveadm", "-c", dovecot->configuration_file()};
    command.insert(command.end(), arguments.begin(), arguments.end());
    return command;
  }

  std::unique_ptr<test::Dovecot> dovecot;
};

// Usage and limit by name, in KiB, which Dovecot rounds up to.
using Figures = std::map<std::string, std::pair<std::uint64_t, std::uint64_t>>;

Figures OurFigures(const MailHost& host) {
  constexpr std::uint64_t kKibibyte = 1024;
  const auto rounded = [](const Json::Value& bytes) {
    return (bytes.asUInt64() + kKibibyte - 1) / kKibibyte;
  };
  Figures figures;
  const Json::Value report = test::Parse(host.Do({"user", "list", "--json"}));
  for (const Json::Value& user : report["users"]) {
    figures[user["name"].asString()] = {rounded(user["usage"]), rounded(user["limit"])};
  }
  return figures;
}

Figures TheirFigures(const MailHost& host) {
  const test::Outcome outcome = test::Run(host.Doveadm({"-f", "json", "quota", "get", "-A"}));
  if (outcome.exit_code != 0) {
    throw std::runtime_error("doveadm: " + outcome.error);
  }
  Figures figures;
  const Json::Value list = test::Parse(outcome.output);
  for (const Json::Value& user : list) {
    if (user["type"] == "STORAGE") {
      figures[user["username"].asString()] = {std::stoull(user["value"].asString()),
                                              std::stoull(user["limit"].asString())};
    }
  }
  return figures;
}

std::string UsageOf(const MailHost& host, const std::string& user) {
  return test::Parse(host.Do({"user", "list", "--json", user}))["users"][0]["usage"].asString();
}

std::string BytesOnDisk(const MailHost& host, const std::string& user) {
  std::uintmax_t bytes = 0;
  for (const char* part : {"cur", "new"}) {
    for (const auto& file :
         fs::directory_iterator(host.folder / "spool/local/" + user + "/" + part)) {
      bytes += file.file_size();
    }
  }
  return std::to_string(bytes);
}

double SecondsSince(std::chrono::steady_clock::time_point start) {
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

// From the end of a delivery until the report has shown the new figure.
Cost DeliverAndWait(const MailHost& host, const std::string& user) {
  constexpr std::size_t kBytes = 2000;
  constexpr double kMostSeconds = 10;
  const std::string old_figure = UsageOf(host, user);
  const std::string answer = host.dovecot->Deliver(user, kBytes);
  const auto start = std::chrono::steady_clock::now();
  std::string figure = UsageOf(host, user);
  while (figure == old_figure && SecondsSince(start) < kMostSeconds) {
    figure = UsageOf(host, user);
  }
  const double seconds = SecondsSince(start);
  if (figure == old_figure || figure != BytesOnDisk(host, user)) {
    throw std::runtime_error(fmt::format("after \"{}\" the report has {}, before it had {}", answer,
                                         figure, old_figure));
  }
  return {seconds, seconds, 0};
}

Cost TimeReportOf(const MailHost& host, const std::string& user) {
  const auto start = std::chrono::steady_clock::now();
  UsageOf(host, user);
  const double seconds = SecondsSince(start);
  return {seconds, seconds, 0};
}

}  // namespace

void MailServerBench::Report() {
  ReportOf(sizes_.fewer_users, 20);
  ReportOf(sizes_.users, 50);
}

void MailServerBench::ReportOf(std::size_t users, double times_as_fast) {
  fmt::print(stderr, "report of {} users beside doveadm\n", users);
  const MailHost host(users);
  const Figures ours = OurFigures(host);
  if (ours.size() != users || ours != TheirFigures(host)) {
    throw std::runtime_error("doveadm tells other figures than the report");
  }
  const auto runs = RunInTurn(
      {host.Quillonctl({"user", "list"}), host.Doveadm({"quota", "get", "-A"})}, 2 * sizes_.rounds);
  results_.AddTimesAsFast(fmt::format("report of {} users beside doveadm, times as fast", users),
                          times_as_fast, runs[0], runs[1], &Cost::whole_seconds);
}

void MailServerBench::Delivery() {
  fmt::print(stderr, "{} deliveries\n", sizes_.deliveries);
  const MailHost host(sizes_.fewer_users);
  Runs waits;
  Runs reports;
  std::vector<double> milliseconds;
  std::ifstream names(host.folder / "names");
  std::string user;
  for (int i = 0; i < sizes_.deliveries && std::getline(names, user); ++i) {
    waits.push_back(DeliverAndWait(host, user));
    reports.push_back(TimeReportOf(host, user));
    milliseconds.push_back(1000 * waits.back().seconds);
  }

  const std::string what = "from a delivery to the report";
  results_.Add(what + ", beside the report alone", kNoTarget, waits, reports, &Cost::seconds);
  const Spread spread = SpreadOf(std::move(milliseconds));
  results_.Add({what + ", ms", kNoTarget, spread, fmt::format("{:.1f} ms", spread.median), "-"});
  const double worst = spread.highest;
  results_.Add({fmt::format("{}, worst of {}, ms", what, waits.size()),
                1000.0,
                {worst, worst, worst},
                fmt::format("{:.1f} ms", worst),
                "-"});
}

}  // namespace quillon::bench
