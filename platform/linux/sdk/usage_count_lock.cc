#include <fcntl.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>

#include <cerrno>
#include <cstdint>
#include <fstream>
#include <optional>
#include <sstream>
#include <string>
#include <system_error>

#include <fmt/format.h>

#include <quillon/platform/no_owner_usage.h>
#include <quillon/platform/usage_count.h>
#include <velamailserver/log_exception.h>

namespace quillon::platform {

namespace {

constexpr char kSourceFile[] = "platform/linux/sdk/usage_count_lock";
constexpr int kStatFailedLine = 41;
constexpr int kReadFailedLine = 57;
constexpr int kNoMountLine = 63;

constexpr char kLocks[] = "/proc/locks";
constexpr char kMounts[] = "/proc/self/mountinfo";

[[noreturn]] void Fail(int line, const std::string& path, const std::string& reason) {
  throw velamailserver::LogException(velamailserver::ERR_OPEN_FILE, path + ": " + reason, 3,
                                     kSourceFile, line);
}

// A link in the file's place is looked at itself, and nobody can lock that.
std::optional<struct statx> FindLockFile() {
  struct statx status {};
  if (::statx(AT_FDCWD, kUsageCountLockFile, AT_SYMLINK_NOFOLLOW, STATX_INO | STATX_MNT_ID,
              &status) == 0) {
    return status;
  }
  if (errno == ENOENT || errno == ENOTDIR) {
    return std::nullopt;
  }
  Fail(kStatFailedLine, kUsageCountLockFile, std::generic_category().message(errno));
}

// The kernel's name for a file in its list of locks. The device in it is the file system's, which a
// file system of several layers or volumes does not answer as its files' device: the list of mounts
// has it. Without the device another file of the same number, and anybody may lock one of his own,
// would be taken for this one.
std::string NameInLocks(const struct statx& file) {
  std::ifstream mounts(kMounts);
  std::string line;
  while (std::getline(mounts, line)) {
    std::uint64_t mount = 0;
    std::uint64_t parent = 0;
    unsigned major = 0;
    unsigned minor = 0;
    char colon = 0;
    std::istringstream(line) >> mount >> parent >> major >> colon >> minor;
    if (mount == file.stx_mnt_id) {
      return fmt::format("{:02x}:{:02x}:{}", major, minor, file.stx_ino);
    }
  }
  Fail(kNoMountLine, kMounts, fmt::format("has no mount that {} is on", kUsageCountLockFile));
}

}  // namespace

// The list shows no holders outside of this process's pid namespace.
bool IsUsageCountRunning() {
  const auto lock_file = FindLockFile();
  if (!lock_file) {
    return false;
  }
  const std::string wanted = NameInLocks(*lock_file);

  std::ifstream locks(kLocks);
  std::string line;
  while (std::getline(locks, line)) {
    std::string number;
    std::string kind;
    std::string nature;
    std::string access;
    std::string pid;
    std::string file;
    std::istringstream(line) >> number >> kind >> nature >> access >> pid >> file;
    // Who waits for a lock has "->" for its kind.
    if (kind == "FLOCK" && file == wanted) {
      return true;
    }
  }
  if (!locks.eof()) {
    Fail(kReadFailedLine, kLocks, "cannot be read");
  }
  return false;
}

}  // namespace quillon::platform
