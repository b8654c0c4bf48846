#include "utils/change_lock.h"

#include <chrono>
#include <stdexcept>
#include <thread>

#include <velamailserver/log_exception.h>

namespace quillon::platform {

namespace {

using velamailserver::velasdk::FileLockGuard;
using velamailserver::velasdk::FileLockHeld;

constexpr std::chrono::seconds kPatience{5};
constexpr std::chrono::milliseconds kPause{20};

}  // namespace

FileLockGuard LockForChange(const std::string& path) {
  const auto deadline = std::chrono::steady_clock::now() + kPatience;
  while (true) {
    try {
      return FileLockGuard(path + ".lock");
    } catch (const FileLockHeld&) {
      if (std::chrono::steady_clock::now() >= deadline) {
        throw std::runtime_error(path + ": is being changed by another process");
      }
    } catch (const velamailserver::LogException& error) {
      throw std::runtime_error(error.what());
    }
    std::this_thread::sleep_for(kPause);
  }
}

}  // namespace quillon::platform
