// quillon-bench [--quick] [--json FILE]: makes hosts of its own, measures the pairs and prints the
// ratios.
#include <filesystem>
#include <fstream>
#include <functional>
#include <iostream>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <CLI/CLI.hpp>
#include <fmt/format.h>
#include <json/value.h>
#include <json/writer.h>

#include "measure.h"
#include "support/redis_server.h"
#include "support/temporary_folder.h"
#include "world.h"

namespace quillon::bench {
namespace {

// Sizes of a run: the ones that the targets are stated for, and smaller ones to see that all works.
struct Sizes {
  std::size_t users = 100'000;
  std::size_t fewer_users = 10'000;
  std::size_t changed_users = 10'000;
  std::size_t messages = 100'000;
  int rounds = 5;
};

constexpr Sizes kQuick{2000, 200, 500, 2000, 1};

struct Row {
  std::string what;
  double target;  // the ratio at most
  Spread ratio;
  std::string ours;
  std::string theirs;
};

// The middle of what the runs of one program cost, with its unit.
std::string Median(const std::vector<Cost>& costs, double Cost::*figure) {
  std::vector<double> figures;
  figures.reserve(costs.size());
  for (const Cost& cost : costs) {
    figures.push_back(cost.*figure);
  }
  const double median = SpreadOf(std::move(figures)).median;
  return figure == &Cost::peak_mb ? fmt::format("{:.1f} MB", median)
                                  : fmt::format("{:.3f} s", median);
}

class Bench {
 public:
  Bench(std::string programs, Sizes sizes) : programs_(std::move(programs)), sizes_(sizes) {}

  std::vector<Row> Run() {
    Report();
    SetQuota();
    Count(true, 0.3);
    Count(false, 1.05);
    return std::move(rows_);
  }

 private:
  std::string Program(const std::string& name) const { return programs_ + "/" + name; }

  void Add(const std::string& what, double target, const Pair& pair, double Cost::*figure) {
    rows_.push_back({what, target, Ratio(pair, figure), Median(pair.ours, figure),
                     Median(pair.theirs, figure)});
  }

  Pair RunReport(std::size_t users) {
    fmt::print(stderr, "report of {} users\n", users);
    const test::TemporaryFolder folder;
    const std::string world = folder.path();
    const test::RedisServer redis;
    MakeHost(world, users, redis.socket());
    FillStores(world);
    Pair pair = RunPair({Program("report-by-library"), world},
                        {Program("report-in-a-straight-line"), world}, sizes_.rounds);
    if (folder.Read("report-by-library.json") != folder.Read("report-in-a-straight-line.json")) {
      throw std::runtime_error("the two reports differ");
    }
    return pair;
  }

  void Report() {
    const Pair many = RunReport(sizes_.users);
    Add(fmt::format("report of {} users, time", sizes_.users), 2.5, many, &Cost::seconds);
    Add(fmt::format("report of {} users, whole program", sizes_.users), 2.5, many,
        &Cost::whole_seconds);
    Add(fmt::format("report of {} users, peak memory", sizes_.users), 2.0, many, &Cost::peak_mb);
    AddGrowth(many, RunReport(sizes_.fewer_users));
  }

  // How the time grows with the number of users; beside it, how the plain program's does.
  void AddGrowth(const Pair& many, const Pair& fewer) {
    const Spread ours = Ratio({many.ours, fewer.ours}, &Cost::seconds);
    const Spread theirs = Ratio({many.theirs, fewer.theirs}, &Cost::seconds);
    rows_.push_back(
        {fmt::format("report of {} users beside {}, time", sizes_.users, sizes_.fewer_users), 12.0,
         ours, fmt::format("{:.1f}x", ours.median), fmt::format("{:.1f}x", theirs.median)});
  }

  void SetQuota() {
    fmt::print(stderr, "quota of {} users\n", sizes_.changed_users);
    const test::TemporaryFolder folder;
    const std::string world = folder.path();
    const test::RedisServer redis;
    MakeHost(world, sizes_.changed_users, redis.socket());
    FillStores(world);
    Add(fmt::format("set quota of {} users, time", sizes_.changed_users), 2.0,
        RunPair({Program("set-by-library"), world}, {Program("set-in-a-straight-line"), world},
                3 * sizes_.rounds),
        &Cost::seconds);
  }

  void Count(bool names_carry_sizes, double target) {
    fmt::print(stderr, "counting {} messages\n", sizes_.messages);
    const test::TemporaryFolder folder;
    const std::string world = folder.path();
    const test::RedisServer redis;
    MakeHost(world, 100, redis.socket());
    MakeMail(world, sizes_.messages, names_carry_sizes);
    Add(fmt::format("count {} messages beside du, sizes {} names", sizes_.messages,
                    names_carry_sizes ? "in the" : "not in the"),
        target,
        RunPair({Program("count-by-library"), world},
                {"du", "-s", "--apparent-size", world + "/spool"}, 2 * sizes_.rounds),
        &Cost::whole_seconds);
  }

  const std::string programs_;
  const Sizes sizes_;
  std::vector<Row> rows_;
};

void Print(const std::vector<Row>& rows, bool has_targets) {
  fmt::print("{:<54} {:>10} {:>10} {:>7} {:>13} {:>7}\n", "what", "ours", "plain", "ratio",
             "(min - max)", "target");
  for (const Row& row : rows) {
    fmt::print("{:<54} {:>10} {:>10} {:>7.2f} {:>13} {:>7} {}\n", row.what, row.ours, row.theirs,
               row.ratio.median,
               fmt::format("({:.2f} - {:.2f})", row.ratio.lowest, row.ratio.highest),
               has_targets ? fmt::format("{:.2f}", row.target) : "-",
               !has_targets                     ? ""
               : row.ratio.median <= row.target ? "met"
                                                : "MISSED");
  }
}

void WriteJson(const std::vector<Row>& rows, const std::string& path) {
  Json::Value document(Json::arrayValue);
  for (const Row& row : rows) {
    Json::Value& entry = document.append(Json::Value(Json::objectValue));
    entry["what"] = row.what;
    entry["ours"] = row.ours;
    entry["plain"] = row.theirs;
    entry["ratio"] = row.ratio.median;
    entry["lowest_ratio"] = row.ratio.lowest;
    entry["highest_ratio"] = row.ratio.highest;
    entry["target"] = row.target;
  }
  std::ofstream(path) << document << '\n';
}

}  // namespace
}  // namespace quillon::bench

int main(int argc, char** argv) {
  CLI::App app(
      "Measures the library beside plain programs that do the same work on the same stores.");
  bool is_quick = false;
  std::string json;
  app.add_flag("--quick", is_quick,
               "small sizes, to see that everything works; the ratios mean little");
  app.add_option("--json", json, "write the figures to this file, too");
  CLI11_PARSE(app, argc, argv);

  try {
    const std::string programs = std::filesystem::canonical("/proc/self/exe").parent_path();
    const auto rows =
        quillon::bench::Bench(programs, is_quick ? quillon::bench::kQuick : quillon::bench::Sizes{})
            .Run();
    quillon::bench::Print(rows, !is_quick);
    if (!json.empty()) {
      quillon::bench::WriteJson(rows, json);
    }
    return 0;
  } catch (const std::exception& error) {
    std::cerr << "quillon-bench: " << error.what() << '\n';
    return 1;
  }
}
