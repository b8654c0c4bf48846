#include "maildir/tree_walk.h"

#include <linux/openat2.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <utility>

namespace quillon::platform {

namespace {

// More than that of the folders above are found again through ".." when it is their turn.
constexpr std::size_t kOpenLevels = 16;
constexpr std::size_t kMostEntriesAtOnce = 100'000;

FileDescriptor OpenFolder(int from, const char* name, unsigned long long resolve) {
  open_how how{};
  how.flags = kReadFolder;
  how.resolve = RESOLVE_NO_XDEV | RESOLVE_NO_SYMLINKS | resolve;
  return FileDescriptor(static_cast<int>(::syscall(SYS_openat2, from, name, &how, sizeof(how))));
}

Directory OpenBeneath(int folder, const char* name) {
  return Directory(OpenFolder(folder, name, RESOLVE_BENEATH));
}

}  // namespace

std::string_view TreeWalk::FolderName() const {
  if (IsInTopFolder()) {
    return {};
  }
  const Level& parent = levels_[levels_.size() - 2];
  return std::string_view(path_).substr(parent.path_length + 1);
}

void TreeWalk::Walk(const FileDescriptor& top) {
  Directory directory = OpenBeneath(top.Get(), ".");
  if (!directory.IsOpen()) {
    CannotRead(errno);
    return;
  }
  levels_.emplace_back(std::move(directory), path_.size());
  while (!levels_.empty()) {
    Step();
  }
}

void TreeWalk::Step() {
  Level& level = levels_.back();
  if (!level.folders.empty()) {
    const std::string name = std::move(level.folders.back());
    level.folders.pop_back();
    Enter(name);
  } else if (!level.is_read) {
    ReadOn();
  } else {
    GoUp();
  }
}

void TreeWalk::ReadOn() {
  Level& level = levels_.back();
  level.is_read = !ReadBatch();
  const int error = errno;
  // Inodes are read from the disk in this order the fastest.
  std::sort(entries_.begin(), entries_.end(),
            [](const Entry& a, const Entry& b) { return a.inode < b.inode; });
  for (const Entry& entry : entries_) {
    const char* const name = names_.data() + entry.name;
    if (Visit(name, entry.type)) {
      level.folders.emplace_back(name);
    }
  }
  std::reverse(level.folders.begin(), level.folders.end());
  if (level.is_read && error != 0) {
    CannotRead(error);
  }
}

// Answers false, with errno, when there is nothing more to be read.
bool TreeWalk::ReadBatch() {
  entries_.clear();
  names_.clear();
  while (entries_.size() < kMostEntriesAtOnce) {
    const dirent* const entry = levels_.back().directory.Next();
    if (entry == nullptr) {
      return false;
    }
    entries_.push_back({entry->d_ino, names_.size(), entry->d_type});
    names_.append(entry->d_name).push_back('\0');
  }
  return true;
}

void TreeWalk::Enter(const std::string& name) {
  Directory directory = OpenBeneath(Folder(), name.c_str());
  if (!directory.IsOpen()) {
    CannotEnter(name.c_str(), errno);
    return;
  }
  path_.append("/").append(name);
  levels_.emplace_back(std::move(directory), path_.size());
  if (levels_.size() > kOpenLevels) {
    Close(levels_[levels_.size() - kOpenLevels - 1]);
  }
}

void TreeWalk::GoUp() {
  Directory child = std::move(levels_.back().directory);
  levels_.pop_back();
  if (levels_.empty()) {
    return;
  }
  Level& level = levels_.back();
  const std::string name = path_.substr(level.path_length + 1);
  path_.resize(level.path_length);
  if (!level.directory.IsOpen() && !FindAgain(level, child)) {
    LoseWay();
    levels_.clear();
    return;
  }
  child = Directory();
  Leave(name.c_str());
}

// Closes a folder, to be found again.
void TreeWalk::Close(Level& level) {
  if (!level.directory.IsOpen()) {
    return;
  }
  struct stat status {};
  if (::fstat(level.directory.Get(), &status) == 0) {
    level.device = status.st_dev;
    level.inode = status.st_ino;
  }
  level.position = level.directory.Position();
  level.directory = Directory();
}

bool TreeWalk::FindAgain(Level& level, const Directory& child) {
  Directory directory(OpenFolder(child.Get(), "..", 0));
  struct stat status {};
  if (!directory.IsOpen() || ::fstat(directory.Get(), &status) != 0 ||
      status.st_dev != level.device || status.st_ino != level.inode) {
    return false;
  }
  directory.Seek(level.position);
  level.directory = std::move(directory);
  return true;
}

}  // namespace quillon::platform
