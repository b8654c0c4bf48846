#include <fmt/format.h>

#include <velamailserver/velasdk/file_lock_guard.h>

#include "recording_platform/world.h"

namespace velamailserver::velasdk {

using recording::TheWorld;

FileLockGuard::FileLockGuard(const std::string& path) : fd_(-1) {
  TheWorld().Call(fmt::format("FileLockGuard({})", path));
}

FileLockGuard::~FileLockGuard() { TheWorld().Note("~FileLockGuard()"); }

}  // namespace velamailserver::velasdk
