#pragma once

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <exception>
#include <memory>
#include <mutex>
#include <new>
#include <string>

#include <quillon/platform/configuration.h>
#include <quillon/platform/file_state.h>

namespace quillon::platform {

/// Some file's index, which is made again when the file has changed. Looking whether it has costs
/// as much as everything else in a lookup, so that is done at most every 50 ms, and whenever it is
/// asked for; a file that cannot be used is not read for every lookup either. Safe for use from
/// several threads.
template <typename Index>
class IndexedFile {
 public:
  enum Freshness { kRecent, kNow };

  /// An index and the state of the file that it was made of; all zeros for that of no file.
  struct Reading {
    FileState state;
    std::shared_ptr<const Index> index;
  };
  using Read = Reading (*)(const std::string& path);
  /// Where the configuration says that the file is.
  using Path = const std::string& (*)(const Configuration::Accounts& settings);

  IndexedFile(Path path_of, Read read) : path_of_(path_of), read_(read) {}

  /// Throws what `read` throws.
  std::shared_ptr<const Index> Get(Freshness freshness) {
    const auto configuration = CurrentConfiguration();
    const std::string& path = path_of_(configuration->accounts);
    const auto now = std::chrono::steady_clock::now();
    const std::lock_guard lock(mutex_);
    const bool is_recent = path == path_ && now - looked_at_ <= kLookInterval;
    if (freshness == kRecent && is_recent && reading_.index != nullptr) {
      return reading_.index;
    }
    if (freshness == kRecent && is_recent && failure_.error != nullptr &&
        failure_.uid == ::geteuid() && failure_.state == StateOf(path)) {
      std::rethrow_exception(failure_.error);
    }
    looked_at_ = now;
    Look(path);
    return reading_.index;
  }

  /// Has the next call look: this process has changed the file.
  void Expire() {
    const std::lock_guard lock(mutex_);
    looked_at_ = {};
  }

 private:
  static constexpr std::chrono::milliseconds kLookInterval{50};

  // Why there is no index: what the file was then, and who could not use it.
  struct Failure {
    std::exception_ptr error;
    FileState state;
    uid_t uid = 0;
  };

  // All zeros for no file.
  static FileState StateOf(const std::string& path) {
    struct stat status {};
    ::stat(path.c_str(), &status);
    return FileState(status);
  }

  void Look(const std::string& path) {
    errno = 0;
    const FileState state = StateOf(path);
    const bool is_known = errno == 0 || errno == ENOENT;
    if (is_known && reading_.index != nullptr && path == path_ && state == reading_.state) {
      return;
    }
    path_ = path;
    reading_.index = nullptr;
    try {
      reading_ = read_(path);
      failure_.error = nullptr;
    } catch (const std::bad_alloc&) {
      failure_.error = nullptr;  // it is not the file's, and may be over already
      throw;
    } catch (...) {
      failure_ = {std::current_exception(), state, ::geteuid()};
      looked_at_ = std::chrono::steady_clock::now();  // reading may have taken longer than that
      throw;
    }
  }

  const Path path_of_;
  const Read read_;
  std::mutex mutex_;
  std::string path_;
  Reading reading_{FileState({}), nullptr};
  Failure failure_{nullptr, FileState({}), 0};
  std::chrono::steady_clock::time_point looked_at_;
};

}  // namespace quillon::platform
