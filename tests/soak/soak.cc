// quillon-soak [--warm-up SECONDS] [--seconds SECONDS]: many clients, good and bad ones, at a web
// server of its own. Fails when what the server holds has grown, when it has become slower, or when
// an answer was wrong or did not come.
#include <algorithm>
#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <exception>
#include <filesystem>
#include <functional>
#include <map>
#include <sstream>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <CLI/CLI.hpp>
#include <fmt/format.h>

#include "clients.h"
#include "figures.h"
#include "hostile.h"
#include "tally.h"
#include "world.h"

namespace quillon::soak {
namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::seconds;

// What a process may have more at the end than after the warm-up: the larger of both.
constexpr double kMostGrowth = 1.1;
constexpr double kMostGrowthMb = 2;
// How many times longer a plain call may take at the end.
constexpr double kMostSlower = 2;

constexpr std::size_t kWorkers = 3;
// What a worker may still have open, or not yet: one call opens stores, and a later one closes
// them.
constexpr int kStores = 4;

// When nobody calls.
struct State {
  std::map<std::string, Figures> processes;
  Latency latency{};
};

class Soak {
 public:
  Soak() : token_(world_.server().Token("boss")) {
    if (!test::Eventually([this] { return Workers().size() == kWorkers; })) {
      throw std::runtime_error("the server does not start all of its workers");
    }
    front_ = world_.server().Children(test::kWebFront).at(0);
    kept_ = Workers().front();
    // Clients leave without a goodbye, and so does the server.
    std::signal(SIGPIPE, SIG_IGN);
  }

  bool Run(seconds warm_up, seconds length) {
    Load(warm_up);
    const State before = Measure();
    for (int part = 1; part <= kParts; ++part) {
      Load(length / kParts);
      Print(fmt::format("after {} s", (length / kParts * part).count()), FiguresOfAll());
    }
    State after = Measure();
    // What else the machine does makes it slower for a while only.
    for (int i = 0; i < 5 && after.latency.p99 > kMostSlower * before.latency.p99; ++i) {
      std::this_thread::sleep_for(seconds(5));
      after = Measure();
    }
    Compare(before, after);
    CheckLog();
    Report(before, after);
    return problems_.empty();
  }

 private:
  static constexpr int kParts = 5;

  using Act = std::function<void()>;

  std::vector<pid_t> Workers() const { return world_.server().Children(test::kWebWorker); }

  // Everybody at once, for that long.
  void Load(seconds length) {
    std::atomic<bool> is_over = false;
    std::vector<std::thread> threads;
    const auto start = [&](const std::function<Act()>& make) {
      threads.emplace_back([this, &is_over, make] {
        try {
          for (const Act act = make(); !is_over;) {
            act();
          }
        } catch (const std::exception& error) {
          tally_.AddWrong(error.what());
        }
      });
    };
    const auto add = [&]<typename Actor>(std::type_identity<Actor>, std::size_t count) {
      for (std::size_t i = 0; i < count; ++i) {
        start([this, i] {
          return [actor = std::make_shared<Actor>(world_, tally_, i)] { actor->Act(); };
        });
      }
    };
    add(std::type_identity<Caller>(), 8);
    add(std::type_identity<Visitor>(), 3);
    add(std::type_identity<Hostile>(), 3);
    start([this] { return [this] { Administer(); }; });
    std::this_thread::sleep_for(length);
    is_over = true;
    for (std::thread& thread : threads) {
      thread.join();
    }
  }

  // What an administrator does, and an accident now and then.
  void Administer() {
    std::this_thread::sleep_for(seconds(2));
    switch (++steps_ % 5) {
      case 0:
        KillAWorker();
        break;
      case 2:
        std::filesystem::last_write_time(world_.server().accounts_file(),
                                         std::filesystem::file_time_type::clock::now());
        break;
      default:
        ::kill(world_.server().program().pid(), SIGHUP);
    }
  }

  void KillAWorker() {
    for (const pid_t worker : Workers()) {
      if (worker != kept_) {
        ::kill(worker, SIGKILL);
        ++kills_;
        return;
      }
    }
  }

  // Those of the supervisor, of the front, of a worker that has never been killed, and the largest
  // of the others.
  std::map<std::string, Figures> FiguresOfAll() {
    std::map<std::string, Figures> all = {
        {"supervisor", FiguresOf(world_.server().program().pid())},
        {"front", FiguresOf(front_)},
        {"worker", FiguresOf(kept_)}};
    for (const pid_t worker : Workers()) {
      if (worker == kept_) {
        continue;
      }
      const Figures figures = FiguresOf(worker);
      Figures& largest = all.emplace("other workers", figures).first->second;
      if (figures.resident_mb > largest.resident_mb) {
        largest = figures;
      }
    }
    return all;
  }

  State Measure() {
    // Longer than the server waits for the rest of a request.
    std::this_thread::sleep_for(seconds(5));
    if (!test::Eventually([this] { return Workers().size() == kWorkers; })) {
      problems_.emplace_back("a worker is missing");
    }
    State state;
    state.processes = FiguresOfAll();
    state.latency = MeasureCalls(world_.server(), token_);
    return state;
  }

  void Compare(const State& before, const State& after) {
    for (const auto& [name, now] : after.processes) {
      const Figures& then = before.processes.at(name);
      const auto check = [&, &process = name](const char* what, double first, double last,
                                              double most) {
        if (last > most) {
          problems_.push_back(
              fmt::format("{}: {} {:.1f} after {:.1f}", process, what, last, first));
        }
      };
      check("resident MB", then.resident_mb, now.resident_mb,
            std::max(then.resident_mb * kMostGrowth, then.resident_mb + kMostGrowthMb));
      check("descriptors", then.descriptors, now.descriptors,
            then.descriptors + (name.find("worker") == std::string::npos ? 0 : kStores));
      check("threads", then.threads, now.threads, 1);
    }
    if (after.latency.p99 > kMostSlower * before.latency.p99) {
      problems_.push_back(fmt::format("99th percentile of a plain call {:.2f} ms after {:.2f}",
                                      after.latency.p99, before.latency.p99));
    }
    if (tally_.lost() > kills_) {
      problems_.push_back(
          fmt::format("{} calls lost and {} workers killed", tally_.lost(), kills_));
    }
    for (const std::string& wrong : tally_.wrong()) {
      problems_.push_back("wrong: " + wrong);
    }
  }

  // Lines that such clients bring, and how many of the others there may be.
  void CheckLog() {
    const std::vector<std::string> expected = {
        "/http_front:41 ",  "/http_front:47 ",  "/http_front:53 ", "/login_api:29 ",
        "/login_api:35 ",   "/refusal_log:23 ", "/supervisor:31 ", "/supervisor:43 ",
        "/run_as_root:24 ", "/no_owner:66 "};  // one count at a time, on the whole host
    std::map<std::string, unsigned long> counted = {
        {"/supervisor:37 a worker ended with signal 9", 0},
        {"/worker_pool:31 a call is lost: the worker ", 0}};
    std::istringstream log(world_.server().Log());
    for (std::string line; std::getline(log, line);) {
      const auto is_in_line = [&](const std::string& text) {
        return line.find(text) != std::string::npos;
      };
      const auto found = std::find_if(counted.begin(), counted.end(),
                                      [&](const auto& kind) { return is_in_line(kind.first); });
      if (found != counted.end()) {
        ++found->second;
      } else if (std::none_of(expected.begin(), expected.end(), is_in_line) ||
                 is_in_line(" refused: 5")) {
        problems_.push_back("unexpected in the log: " + line);
      }
    }
    for (const auto& [line, count] : counted) {
      if (count > kills_) {
        problems_.push_back(fmt::format("{} workers killed, and {} lines {}", kills_, count, line));
      }
    }
  }

  void Report(const State& before, const State& after) {
    Print("at first", before.processes);
    Print("at last", after.processes);
    std::vector<double> times = tally_.TakeTimes();
    const Latency busy = LatencyOf(times);
    fmt::print(
        "plain call, nobody else calling: p50 {:.2f} ms, p99 {:.2f} ms at first; {:.2f}, "
        "{:.2f} at last\n",
        before.latency.p50, before.latency.p99, after.latency.p50, after.latency.p99);
    fmt::print("plain call under load: p50 {:.2f} ms, p99 {:.2f} ms\n", busy.p50, busy.p99);
    fmt::print("{} requests ({} lost, {} workers killed, {} answers wrong):", tally_.requests(),
               tally_.lost(), kills_.load(), tally_.wrong().size());
    for (const auto& [kind, count] : tally_.kinds()) {
      fmt::print(" {} {}", kind, count);
    }
    fmt::print("\n");
    constexpr std::size_t kMostShown = 30;
    for (std::size_t i = 0; i < std::min(problems_.size(), kMostShown); ++i) {
      fmt::print("PROBLEM: {}\n", problems_[i]);
    }
    fmt::print("{} problems\n", problems_.size());
  }

  static void Print(const std::string& when, const std::map<std::string, Figures>& processes) {
    fmt::print("{}:", when);
    for (const auto& [name, figures] : processes) {
      fmt::print(" {} RSS {:.1f} PSS {:.1f} MB, {} descriptors, {} threads;", name,
                 figures.resident_mb, figures.proportional_mb, figures.descriptors,
                 figures.threads);
    }
    fmt::print("\n");
    std::fflush(stdout);
  }

  World world_;
  Tally tally_;
  std::string token_;
  pid_t front_ = 0;
  pid_t kept_ = 0;
  unsigned int steps_ = 0;
  std::atomic<unsigned long> kills_ = 0;
  std::vector<std::string> problems_;
};

}  // namespace
}  // namespace quillon::soak

int main(int argc, char** argv) {
  CLI::App app("Loads a web server with good and bad clients, and watches what it holds.");
  long warm_up = 15;
  long length = 40;
  app.add_option("--warm-up", warm_up, "seconds of load before the first figures");
  app.add_option("--seconds", length, "seconds of load between the first figures and the last");
  CLI11_PARSE(app, argc, argv);
  try {
    quillon::soak::Soak soak;
    return soak.Run(std::chrono::seconds(warm_up), std::chrono::seconds(length)) ? EXIT_SUCCESS
                                                                                 : EXIT_FAILURE;
  } catch (const std::exception& error) {
    fmt::print(stderr, "quillon-soak: {}\n", error.what());
    return EXIT_FAILURE;
  }
}
