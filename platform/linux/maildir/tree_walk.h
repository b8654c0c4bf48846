#pragma once

#include <sys/types.h>

#include <cstddef>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "maildir/directory.h"
#include "utils/file_descriptor.h"

namespace quillon::platform {

/// Goes through a tree whose owner may be hostile and at work in it. Follows no link and crosses
/// no mount point. Needs few descriptors and little memory however deep and wide the tree is, and
/// never more of the stack. What is done on the way is a derived class's; whatever it throws ends
/// the walk.
class TreeWalk {
 public:
  TreeWalk(const TreeWalk&) = delete;
  TreeWalk& operator=(const TreeWalk&) = delete;

 protected:
  /// `path` is the top folder's name in messages.
  explicit TreeWalk(std::string path) : path_(std::move(path)) {}
  ~TreeWalk() = default;

  /// The descriptor of the top folder may be one for looking up only (O_PATH).
  void Walk(const FileDescriptor& top);

  // The folder that the walk is in.
  int Folder() const { return levels_.back().directory.Get(); }
  bool IsInTopFolder() const { return levels_.size() == 1; }
  const std::string& FolderPath() const { return path_; }
  /// Empty in the top folder.
  std::string_view FolderName() const;
  std::string PathOf(const char* name) const { return path_ + "/" + name; }

 private:
  struct Level {
    Level(Directory opened, std::size_t path_length_so_far)
        : directory(std::move(opened)), path_length(path_length_so_far) {}

    Directory directory;  // closed while the walk is far below
    // By these it is found again.
    dev_t device = 0;
    ino_t inode = 0;
    long position = 0;

    bool is_read = false;
    std::vector<std::string> folders;  // those read and not entered yet, the next one last
    std::size_t path_length;
  };

  struct Entry {
    ino_t inode;
    std::size_t name;  // where it begins in `names_`
    unsigned char type;
  };

  /// An entry of the folder, with a type as readdir gives it. Answers whether it is a folder, which
  /// is then entered.
  virtual bool Visit(const char* name, unsigned char type) = 0;
  /// An entry is behind it that was a folder and has been walked through.
  virtual void Leave(const char* name) = 0;
  /// An entry that was a folder cannot be entered: EXDEV when something is mounted there; ENOENT,
  /// ENOTDIR or ELOOP when something else has taken its place.
  virtual void CannotEnter(const char* name, int error) = 0;
  /// The folder cannot be read, or not to its end.
  virtual void CannotRead(int error) = 0;
  /// The way back to the folder is lost, because somebody has moved what the walk was in. It ends.
  virtual void LoseWay() = 0;

  void Step();
  void ReadOn();
  bool ReadBatch();
  void Enter(const std::string& name);
  void GoUp();
  static void Close(Level& level);
  static bool FindAgain(Level& level, const Directory& child);

  std::string path_;
  std::vector<Level> levels_;
  // One batch of entries, kept to be filled again.
  std::vector<Entry> entries_;
  std::string names_;
};

}  // namespace quillon::platform
