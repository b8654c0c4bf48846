// The pages of ownerless mail directories, and their removal. An input is a line for each directory
// that the scan prints, and for each operation:
//
//   dir 3001 1024 felix     uid, usage ("-": never counted) and, if there is one, a name
//   kept 3002 1 nadia       printed by the scan, but somebody's
//   page 0 10 ud felix      offset, limit, u(sage) or name, d(escending) or not, keyword
//   remove 3001
#include <algorithm>
#include <charconv>
#include <optional>
#include <vector>

#include <velamailserver/account/no_owner.h>

#include "fuzz/report.h"

namespace quillon::fuzz {
namespace {

using recording::OwnerlessMaildir;
using recording::World;
using velamailserver::webapi::NoOwner;

struct Directory {
  std::string path;
  OwnerlessMaildir maildir;
};

template <typename Integer>
Integer IntegerIn(std::string_view text) {
  Integer number = 0;
  static_cast<void>(std::from_chars(text.data(), text.data() + text.size(), number));
  return number;
}

// A NoOwner as a straight-line program would have it.
class Model {
 public:
  explicit Model(std::vector<Directory> on_disk) : on_disk_(std::move(on_disk)) { Scan(); }

  void Scan() {
    for (const Directory& directory : on_disk_) {
      if (directory.maildir.flag) {
        found_.push_back(directory);
        needs_count_ |= !directory.maildir.usage;
      }
    }
  }

  Json::Value Page(unsigned long offset, long limit, const std::string& keyword, bool by_usage,
                   bool descending) {
    std::vector<Directory> kept;
    for (const Directory& directory : found_) {
      if (LowerCase(NameOf(directory)).find(LowerCase(keyword)) != std::string::npos) {
        kept.push_back(directory);
      }
    }
    std::stable_sort(kept.begin(), kept.end(), [&](const Directory& a, const Directory& b) {
      return by_usage ? UsageOf(a) < UsageOf(b) : NameOf(a) < NameOf(b);
    });
    if (descending) {
      std::reverse(kept.begin(), kept.end());
    }
    Json::Value page(Json::objectValue);
    page["total"] = Json::UInt64{kept.size()};
    Json::Value& list = page["no_owner_list"] = Json::Value(Json::arrayValue);
    for (std::size_t i = offset;
         i < kept.size() && (limit < 0 || list.size() < static_cast<std::size_t>(limit)); ++i) {
      Json::Value& entry = list.append(Json::Value(Json::objectValue));
      entry["uid"] = Json::UInt{kept[i].maildir.uid};
      const std::string name = NameOf(kept[i]);
      entry["name"] = Json::Value(name.data(), name.data() + name.size());
      entry["usage"] = Json::UInt64{UsageOf(kept[i])};
    }
    return page;
  }

  // What is asked to go, in the order of the scan.
  std::vector<std::string> Doomed(unsigned int uid) const {
    std::vector<std::string> calls;
    for (const Directory& directory : found_) {
      if (directory.maildir.uid == uid) {
        calls.push_back("Delete(" + directory.path + ")");
      }
    }
    return calls;
  }

  bool TakeNeedsCount() { return std::exchange(needs_count_, false); }

 private:
  static std::string NameOf(const Directory& directory) {
    return directory.maildir.name.value_or("");
  }
  static unsigned long long UsageOf(const Directory& directory) {
    return directory.maildir.usage.value_or(0);
  }

  std::vector<Directory> on_disk_;
  std::vector<Directory> found_;
  bool needs_count_ = false;
};

std::vector<std::string> CallsOf(const World& world, std::string_view name) {
  std::vector<std::string> calls;
  std::copy_if(world.transcript.begin(), world.transcript.end(), std::back_inserter(calls),
               [&](const std::string& line) { return line.starts_with(name); });
  return calls;
}

Directory ParseDirectory(std::string_view line, std::size_t number) {
  Directory directory;
  directory.path = "/maildir/local/" + std::to_string(number);
  directory.maildir.flag = line.front() == 'd';
  Cut(line, " ");
  directory.maildir.uid = IntegerIn<unsigned int>(Cut(line, " "));
  const bool has_name = line.find(' ') != std::string_view::npos;
  const std::string_view usage = Cut(line, " ");
  if (usage != "-") {
    directory.maildir.usage = IntegerIn<unsigned long long>(usage);
  }
  if (has_name) {
    directory.maildir.name = std::string(line);
  }
  return directory;
}

std::vector<Directory> TakeDirectories(std::string_view& input) {
  std::vector<Directory> directories;
  while (input.starts_with('d') || input.starts_with('k')) {
    directories.push_back(ParseDirectory(Cut(input, "\n"), directories.size()));
  }
  return directories;
}

void ComparePage(std::string_view line, NoOwner& no_owner, Model& model) {
  const auto offset = IntegerIn<unsigned long>(Cut(line, " "));
  const auto limit = IntegerIn<long>(Cut(line, " "));
  const std::string_view order = Cut(line, " ");
  const bool by_usage = order.starts_with('u');
  const bool descending = order.ends_with('d');
  World& world = recording::TheWorld();
  world.transcript.clear();
  const Json::Value page = no_owner.List(offset, limit, std::string(line),
                                         by_usage ? "usage" : "name", descending ? "DESC" : "ASC");
  Require(test::Typed(page) ==
              test::Typed(model.Page(offset, limit, std::string(line), by_usage, descending)),
          "the page is that of a straight-line program");
  Require(CallsOf(world, "VLIBCProcFork").size() == (model.TakeNeedsCount() ? 1 : 0),
          "the first page after a scan counts what nobody has counted");
}

void CompareRemoval(std::string_view line, NoOwner& no_owner, Model& model) {
  const auto uid = IntegerIn<unsigned int>(line);
  World& world = recording::TheWorld();
  world.transcript.clear();
  no_owner.RemoveStorage({uid});
  Require(CallsOf(world, "Delete(") == model.Doomed(uid), "only what is of that uid goes");
  model.Scan();
}

}  // namespace
}  // namespace quillon::fuzz

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace quillon::fuzz;
  constexpr int kMostOperations = 8;
  std::string_view input = TextOf(data, size);
  World& world = recording::TheWorld();
  world = World();
  const std::vector<Directory> directories = TakeDirectories(input);
  for (const Directory& directory : directories) {
    world.AddOwnerless(directory.path, directory.maildir);
  }
  Model model(directories);
  NoOwner no_owner;
  for (int i = 0; i < kMostOperations && !input.empty(); ++i) {
    std::string_view line = Cut(input, "\n");
    const std::string_view word = Cut(line, " ");
    if (word.starts_with('p')) {
      ComparePage(line, no_owner, model);
    } else if (word.starts_with('r')) {
      CompareRemoval(line, no_owner, model);
    }
  }
  return 0;
}
