// quillon-bench [--quick] [--only NAME] [--json FILE]: makes hosts of its own, measures the pairs
// and prints the ratios.
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <functional>
#include <iostream>
#include <memory>
#include <optional>
#include <sstream>
#include <stdexcept>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include <CLI/CLI.hpp>
#include <fmt/format.h>

#include "host.h"
#include "mail_server.h"
#include "measure.h"
#include "plain_store.h"
#include "results.h"
#include "system/large_host.h"
#include "web.h"

namespace quillon::bench {
namespace {

namespace fs = std::filesystem;

// Sizes of a run: the ones that the targets are stated for, and smaller ones to see that all works.
struct Sizes {
  std::size_t users = 100'000;
  std::size_t fewer_users = 10'000;
  std::size_t changed_users = 10'000;
  std::size_t detailed_users = 10'000;
  std::size_t fewer_detailed_users = 1000;
  std::size_t groups = 10'000;
  std::size_t messages = 100'000;
  std::size_t ownerless = 100'000;        // mail directories
  std::size_t ownerless_files = 200'000;  // to recount
  std::size_t removed_files = 100'000;
  std::size_t ownerless_records = 1'000'000;  // to show a page of
  std::size_t synced_users = 100'000;
  std::size_t synced_groups = 1000;
  int rounds = 5;
};

constexpr Sizes kQuick{2000, 200, 500, 500, 50, 500, 2000, 500, 2000, 1000, 10'000, 2000, 50, 1};

// The next program reads everything from the disk.
void ForgetFiles() {
  ::sync();
  std::ofstream("/proc/sys/vm/drop_caches") << "3" << std::flush;
}

// A store in one file, while nobody has it open.
class StoreFile {
 public:
  using Image = std::tuple<std::string, fs::file_time_type, bool>;

  explicit StoreFile(std::string path) : path_(std::move(path)) {}

  void CopyTo(const std::string& path) const { Copy(path_, path); }
  void CopyFrom(const std::string& path) const { Copy(path, path_); }

  // What every write changes.
  Image Read() const {
    std::ostringstream content;
    content << std::ifstream(path_, std::ios::binary).rdbuf();
    return {content.str(), fs::last_write_time(path_), fs::exists(path_ + "-wal")};
  }

 private:
  static void Copy(const std::string& from, const std::string& to) {
    fs::copy_file(from, to, fs::copy_options::overwrite_existing);
  }

  const std::string path_;
};

class Bench {
 public:
  Bench(std::string programs, const Sizes& sizes, const MailServerSizes& mail_server_sizes,
        const WebSizes& web_sizes)
      : programs_(std::move(programs)),
        sizes_(sizes),
        mail_server_(mail_server_sizes, results_),
        web_(programs_, web_sizes, results_) {}

  // What can be measured, by the name that chooses it; everything without a name.
  const Results& Run(const std::string& only) {
    const std::vector<std::pair<std::string, std::function<void()>>> measurements = {
        {"report", [this] { Report(); }},
        {"set", [this] { SetQuota(); }},
        {"details", [this] { Details(); }},
        {"groups", [this] { Groups(); }},
        {"count", [this] { Count(true, 0.3), Count(false, 1.05); }},
        {"find", [this] { FindOwnerless(); }},
        {"recount", [this] { RecountOwnerless(); }},
        {"remove", [this] { RemoveOwnerless(); }},
        {"page", [this] { PageOwnerless(); }},
        {"sync", [this] { Sync(); }},
        {"doveadm", [this] { mail_server_.Report(); }},
        {"delivery", [this] { mail_server_.Delivery(); }},
        {"remote-call", [this] { web_.RemoteCall(); }},
        {"local-call", [this] { web_.LocalCall(); }},
        {"web-server", [this] { web_.Server(); }},
        {"web-memory", [this] { web_.Memory(); }},
        {"web-start", [this] { web_.Start(); }}};
    for (const auto& [name, measure] : measurements) {
      if (only.empty() || only == name) {
        measure();
      }
    }
    return results_;
  }

 private:
  std::string Program(const std::string& name) const { return programs_ + "/" + name; }

  // What two programs have written about a host.
  static void RequireSame(const Host& host, const std::string& ours, const std::string& theirs) {
    if (host.folder.Read(ours) != host.folder.Read(theirs)) {
      throw std::runtime_error(fmt::format("{} and {} differ", ours, theirs));
    }
  }

  // Hosts of two sizes at once, so that a machine whose speed drifts does not tell them apart.
  void Report() {
    fmt::print(stderr, "report of {} and of {} users\n", sizes_.users, sizes_.fewer_users);
    const Host many(sizes_.users);
    const Host fewer(sizes_.fewer_users);
    test::FillStores(many.path());
    test::FillStores(fewer.path());
    const auto runs = RunInTurn({{Program("report-by-library"), many.path()},
                                 {Program("report-in-a-straight-line"), many.path()},
                                 {Program("report-by-library"), fewer.path()},
                                 {Program("report-in-a-straight-line"), fewer.path()}},
                                sizes_.rounds);
    for (const Host* host : {&many, &fewer}) {
      RequireSame(*host, "report-by-library.json", "report-in-a-straight-line.json");
    }

    const std::string what = fmt::format("report of {} users", sizes_.users);
    results_.Add(what + ", time", 2.5, runs[0], runs[1], &Cost::seconds);
    results_.Add(what + ", whole program", 2.5, runs[0], runs[1], &Cost::whole_seconds);
    results_.Add(what + ", peak memory", 2.0, runs[0], runs[1], &Cost::peak_mb);
    // Ours with many users beside ours with fewer, and beside it how the plain program grows.
    const Spread growth = Ratio(runs[0], runs[2], &Cost::seconds);
    results_.Add({fmt::format("{} beside {}, time", what, sizes_.fewer_users), 12.0, growth,
                  fmt::format("{:.1f}x", growth.median),
                  fmt::format("{:.1f}x", Ratio(runs[1], runs[3], &Cost::seconds).median)});
  }

  void SetQuota() {
    fmt::print(stderr, "quota of {} users\n", sizes_.changed_users);
    const Host host(sizes_.changed_users);
    test::FillStores(host.path());
    const auto runs = RunInTurn({{Program("set-by-library"), host.path()},
                                 {Program("set-in-a-straight-line"), host.path()}},
                                3 * sizes_.rounds);
    results_.Add(fmt::format("set quota of {} users, time", sizes_.changed_users), 2.0, runs[0],
                 runs[1], &Cost::seconds);
  }

  // Both programs make the same calls of the platform. Every fourth user is in a group besides.
  void Details() {
    fmt::print(stderr, "details of {} and of {} users\n", sizes_.detailed_users,
               sizes_.fewer_detailed_users);
    const Host many(sizes_.detailed_users);
    const Host fewer(sizes_.fewer_detailed_users);
    for (const Host* host : {&many, &fewer}) {
      test::FillStores(host->path());
      test::MakeGroups(host->path(),
                       (host == &many ? sizes_.detailed_users : sizes_.fewer_detailed_users) / 8);
      test::MakeMaildirs(host->path());
    }
    const auto runs = RunInTurn({{Program("details-by-library"), many.path()},
                                 {Program("details-in-a-straight-line"), many.path()},
                                 {Program("details-by-library"), fewer.path()}},
                                sizes_.rounds);
    RequireSame(many, "details-by-library", "details-in-a-straight-line");
    const std::string what = fmt::format("details of {} users", sizes_.detailed_users);
    results_.Add(what + ", time", 2.0, runs[0], runs[1], &Cost::seconds);
    const Spread growth = Ratio(runs[0], runs[2], &Cost::seconds);
    results_.Add({fmt::format("{} beside {}, time", what, sizes_.fewer_detailed_users), 12.0,
                  growth, fmt::format("{:.1f}x", growth.median), "-"});
  }

  void Groups() {
    constexpr std::size_t kUsers = 100;
    fmt::print(stderr, "report of {} groups\n", sizes_.groups);
    const Host host(kUsers);
    test::MakeGroups(host.path(), sizes_.groups);
    const auto runs = RunInTurn({{Program("groups-by-library"), host.path()},
                                 {Program("groups-in-a-straight-line"), host.path()}},
                                3 * sizes_.rounds);
    RequireSame(host, "groups-by-library.json", "groups-in-a-straight-line.json");
    const std::string what = fmt::format("report of {} groups", sizes_.groups);
    results_.Add(what + ", time", 2.0, runs[0], runs[1], &Cost::seconds);
    results_.Add(what + ", peak memory", 2.0, runs[0], runs[1], &Cost::peak_mb);
  }

  void Count(bool names_carry_sizes, double target) {
    constexpr std::size_t kMailboxes = 100;
    fmt::print(stderr, "counting {} messages\n", sizes_.messages);
    const Host host(kMailboxes);
    test::MakeMail(host.path(), sizes_.messages, names_carry_sizes);
    const auto runs = RunInTurn({{Program("count-by-library"), host.path()},
                                 {"du", "-s", "--apparent-size", host.path() + "/spool"}},
                                2 * sizes_.rounds);
    results_.Add(fmt::format("count {} messages beside du, sizes {} names", sizes_.messages,
                             names_carry_sizes ? "in the" : "not in the"),
                 target, runs[0], runs[1], &Cost::whole_seconds);
  }

  // The command is the scan's own; the second row adds what it costs to look every figure up.
  void FindOwnerless() {
    fmt::print(stderr, "finding {} ownerless mail directories\n", sizes_.ownerless);
    const Host host(1);
    test::MakeOwnerlessMail(host.path(), sizes_.ownerless, 0);
    const std::string what = fmt::format("find {} ownerless directories", sizes_.ownerless);
    const Command scan = {Program("scan-by-library"), host.path()};
    const Command find = {
        "/bin/find", host.path() + "/spool", "-mindepth", "2", "-maxdepth", "2", "-type", "d",
        "-nouser"};
    const auto uncounted = RunInTurn({scan, find}, sizes_.rounds);
    results_.Add(what, 1.1, uncounted[0], uncounted[1], &Cost::whole_seconds);
    RunInTurn({{Program("recount-by-library"), host.path()}}, 0);
    const auto counted = RunInTurn({scan, find}, sizes_.rounds);
    results_.Add(what + ", with usage from the cache", 1.2, counted[0], counted[1],
                 &Cost::whole_seconds);
  }

  void RecountOwnerless() {
    constexpr std::size_t kMailboxes = 100;
    fmt::print(stderr, "recounting {} ownerless files\n", sizes_.ownerless_files);
    const Host host(1);
    test::MakeOwnerlessMail(host.path(), kMailboxes, sizes_.ownerless_files / kMailboxes);
    const std::vector<Command> commands = {{Program("recount-by-library"), host.path()},
                                           {"du", "-s", "--apparent-size", host.path() + "/spool"}};
    const std::string what = fmt::format("recount {} files beside du", sizes_.ownerless_files);
    const auto hot = RunInTurn(commands, 2 * sizes_.rounds);
    results_.Add(what + ", hot cache", 1.05, hot[0], hot[1], &Cost::seconds);
    const auto cold = RunInTurn(commands, sizes_.rounds, ForgetFiles);
    results_.Add(what + ", cold cache", 1.05, cold[0], cold[1], &Cost::seconds);
  }

  void RemoveOwnerless() {
    constexpr std::size_t kMailboxes = 10;
    fmt::print(stderr, "removing {} ownerless files\n", sizes_.removed_files);
    const Host host(1);
    const auto make = [&] {
      test::MakeOwnerlessMail(host.path(), kMailboxes, sizes_.removed_files / kMailboxes);
      ::sync();
    };
    const auto runs = RunInTurn(
        {{Program("remove-by-library"), host.path()}, {"rm", "-rf", host.path() + "/spool/local"}},
        sizes_.rounds, make);
    results_.Add(fmt::format("remove {} files beside rm -rf", sizes_.removed_files), 1.05, runs[0],
                 runs[1], &Cost::seconds);
  }

  void PageOwnerless() {
    constexpr int kRounds = 3;  // making the records takes far longer than showing a page
    fmt::print(stderr, "a page of {} ownerless mail directories\n", sizes_.ownerless_records);
    const std::string records = std::to_string(sizes_.ownerless_records);
    for (const auto& [keyword, target] : {std::pair("", 0.2), std::pair("ar", 1.0 / 3)}) {
      for (const char* sort_by : {"name", "usage"}) {
        for (const char* offset : {"first", "middle"}) {
          const auto runs = RunInTurn(
              {{Program("page-of-ownerless"), "library", records, keyword, sort_by, offset},
               {Program("page-of-ownerless"), "plain", records, keyword, sort_by, offset}},
              kRounds);
          results_.Add(fmt::format("{} page of {} by {}{}", offset, records, sort_by,
                                   *keyword == '\0' ? "" : ", filtered"),
                       target, runs[0], runs[1], &Cost::seconds);
        }
      }
    }
    const auto memory =
        RunInTurn({{Program("page-of-ownerless"), "memory", records, "", "name", "middle"}}, 1);
    const double bytes = memory[0].front().seconds;
    results_.Add({fmt::format("page of {}, working bytes a record", records),
                  32.0,
                  {bytes, bytes, bytes},
                  fmt::format("{:.1f} B", bytes),
                  "-"});
  }

  // Whole programs, which read the accounts files and the store, and write to it what differs.
  void Sync() {
    constexpr std::size_t kMembers = 100;  // of a group
    fmt::print(stderr, "quota sync of {} users in {} groups\n", sizes_.synced_users,
               sizes_.synced_groups);
    const Host host(sizes_.synced_users);
    test::MakeGroups(host.path(), sizes_.synced_groups, kMembers);
    const StoreFile store(host.folder / "quota.db");
    store.CopyTo(host.folder / "without-users.db");
    const auto forget_users = [&] { store.CopyFrom(host.folder / "without-users.db"); };
    const std::vector<Command> commands = {host.Quillonctl({"quota", "sync"}),
                                           {Program("sync-in-a-straight-line"), host.path()}};
    const std::string what = fmt::format("quota sync of {} users", sizes_.synced_users);
    const auto first = RunInTurn(commands, sizes_.rounds, forget_users);
    results_.Add(what + ", all new", 3.0, first[0], first[1], &Cost::whole_seconds);

    store.CopyTo(host.folder / "plain.db");
    forget_users();
    host.Do({"quota", "sync"});
    RequireSameMailUsers(host);
    const StoreFile::Image image = store.Read();
    const auto second = RunInTurn(commands, sizes_.rounds);
    if (store.Read() != image) {
      throw std::runtime_error("a sync that had nothing to change has written to the store");
    }
    results_.Add(what + ", none new", 3.0, second[0], second[1], &Cost::whole_seconds);
  }

  static void RequireSameMailUsers(const Host& host) {
    for (const char* table : {"mail_user", "mail_user_group"}) {
      if (!HaveSameRows(host.folder / "quota.db", host.folder / "plain.db", table)) {
        throw std::runtime_error(fmt::format("the rows of {} differ", table));
      }
    }
  }

  const std::string programs_;
  const Sizes sizes_;
  Results results_;
  MailServerBench mail_server_;
  WebBench web_;
};

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
  std::string only;
  app.add_option("--only", only, "measure this alone")
      ->check(CLI::IsMember({"report", "set", "details", "groups", "count", "find", "recount",
                             "remove", "page", "sync", "doveadm", "delivery", "remote-call",
                             "local-call", "web-server", "web-memory", "web-start"}));
  CLI11_PARSE(app, argc, argv);

  try {
    const std::string programs = std::filesystem::canonical("/proc/self/exe").parent_path();
    auto bench = is_quick ? quillon::bench::Bench(programs, quillon::bench::kQuick,
                                                  quillon::bench::kQuickMailServer,
                                                  quillon::bench::kQuickWeb)
                          : quillon::bench::Bench(programs, {}, {}, {});
    const quillon::bench::Results& results = bench.Run(only);
    results.Print(!is_quick);
    if (!json.empty()) {
      results.WriteJson(json);
    }
    return 0;
  } catch (const std::exception& error) {
    std::cerr << "quillon-bench: " << error.what() << '\n';
    return 1;
  }
}
