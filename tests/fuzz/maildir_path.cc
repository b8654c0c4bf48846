// Which paths are taken for mail directories. In an input "ROOT" stands for the maildir root, which
// has a few directories, links and files in it.
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <system_error>

#include <velamailserver/log_exception.h>
#include <velamailserver/velasdk/vela_user.h>

#include "fuzz/platform.h"
#include "maildir/maildir.h"

namespace velamailserver::velasdk {

// No account is looked up: who a directory belongs to is not what is tried here.
VelaUser::VelaUser(unsigned int /*uid*/) { std::abort(); }
std::string VelaUser::Name() const { std::abort(); }

}  // namespace velamailserver::velasdk

namespace quillon::fuzz {
namespace {

namespace fs = std::filesystem;
using platform::MaildirAt;

void MakeMaildir(const fs::path& path) {
  for (const char* folder : {"cur", "new", "tmp"}) {
    fs::create_directories(path / folder);
  }
}

// Nobody can have put anything in its place.
fs::path MakeTree() {
  std::string root_name = fs::temp_directory_path() / "fuzz-maildir-path-XXXXXX";
  if (::mkdtemp(root_name.data()) == nullptr) {
    throw std::system_error(errno, std::generic_category(), root_name);
  }
  const fs::path root = root_name;
  MakeMaildir(root / "local/alice");
  MakeMaildir(root / "local/...");
  MakeMaildir(root / "local/deeper/bob");
  MakeMaildir(root / "example.org/alice");
  MakeMaildir(root / "carol");
  fs::create_directories(root / "local/left/tmp");
  fs::create_directories(root / "local/empty");
  fs::create_directories(root / "local/other/folder");
  fs::create_directory_symlink(root / "local", root / "link");
  fs::create_directory_symlink(root / "local/alice", root / "local/linked");
  fs::create_directory_symlink("/", root / "local/slash");
  std::ofstream(root / "local/file") << "a file";
  return fs::canonical(root);
}

struct Tree {
  Tree() {
    platform::Configuration configuration = QuietConfiguration();
    configuration.maildir.root = root;
    platform::UseConfiguration(std::move(configuration));
  }
  ~Tree() { fs::remove_all(root); }

  const std::string root = MakeTree();
};

bool IsRealFolder(const std::string& path) {
  struct stat status {};
  return ::lstat(path.c_str(), &status) == 0 && S_ISDIR(status.st_mode);
}

bool IsName(const std::string& name) {
  return !name.empty() && name != "." && name != ".." &&
         name.find_first_of(std::string_view("/\0\n", 3)) == std::string::npos;
}

// Domain and account of a path exactly two levels below the root; empty for any other.
std::pair<std::string, std::string> PlaceIn(const std::string& root, const std::string& path) {
  const std::string below = path.starts_with(root + "/") ? path.substr(root.size() + 1) : "";
  const auto slash = below.find('/');
  if (slash == std::string::npos || !IsName(below.substr(0, slash)) ||
      !IsName(below.substr(slash + 1))) {
    return {};
  }
  return {below.substr(0, slash), below.substr(slash + 1)};
}

void RequireMaildir(const std::string& root, const std::string& path, const MaildirAt& maildir) {
  const std::string& domain = maildir.domain_name;
  const std::string& account = maildir.account;
  Require(std::pair(domain, account) == PlaceIn(root, path),
          "a mail directory is exactly two levels below the root");
  Require(IsRealFolder(root + "/" + domain) && IsRealFolder(path),
          "no link leads to a mail directory");
  struct stat at_path {};
  struct stat opened {};
  Require(::lstat(path.c_str(), &at_path) == 0 && ::fstat(maildir.folder.Get(), &opened) == 0 &&
              at_path.st_ino == opened.st_ino && at_path.st_dev == opened.st_dev &&
              maildir.inode == opened.st_ino,
          "what is opened is what is at the path");
  bool has_more = false;
  int folders = 0;
  for (const auto& entry : fs::directory_iterator(path)) {
    const std::string name = entry.path().filename();
    const bool is_own = name == "cur" || name == "new" || name == "tmp";
    folders += is_own && IsRealFolder(entry.path()) ? 1 : 0;
    has_more |= !is_own;
  }
  Require(folders == 3 || !has_more, "a mail directory looks like one");
}

void CheckPath(const std::string& root, const std::string& path) {
  try {
    const MaildirAt maildir = platform::OpenMaildirAt(path);
    if (maildir.state == MaildirAt::kMaildir) {
      RequireMaildir(root, path, maildir);
    } else if (maildir.state == MaildirAt::kAbsent) {
      Require(!PlaceIn(root, path).first.empty(), "a place of a mail directory is one");
      Require(::access(path.c_str(), F_OK) != 0 && errno == ENOENT, "nothing is there");
    } else {
      Require(!maildir.folder.IsOpen() && !maildir.domain.IsOpen(), "nothing else is opened");
    }
  } catch (const velamailserver::LogException&) {
  }
}

void CheckAccount(const std::string& root, const std::string& account) {
  const std::string path = platform::MaildirPath(account);
  Require(path.empty() || path == root + "/local/" + account,
          "an account's directory is that of its name");
  try {
    if (platform::OpenMaildir(account).IsOpen()) {
      Require(IsRealFolder(path) && account.find('/') == std::string::npos,
              "an account's directory is a real one");
    }
  } catch (const velamailserver::LogException&) {
  }
}

}  // namespace
}  // namespace quillon::fuzz

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace quillon::fuzz;
  static const Tree tree;
  const std::string text(TextOf(data, size));
  CheckPath(tree.root, Replaced(text, "ROOT", tree.root));
  CheckAccount(tree.root, text);
  return 0;
}
