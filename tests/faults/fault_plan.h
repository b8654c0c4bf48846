#pragma once

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <system_error>

namespace quillon::test {

/// What happens to the call that a plan names.
enum class Fault : std::uint32_t {
  kNone,
  kInputOutput,  ///< it fails with EIO
  kFullDisk,     ///< it fails with ENOSPC, and so do all later ones that need space
  kShortWrite,   ///< it writes half of the bytes; other calls than writes go through
  kKill,         ///< its process is killed before it
  kNoMemory,     ///< no memory is allocated
};

/// What the campaign and the library in a program that it tries tell each other, in memory that
/// both have, and that whatever the program starts has, too. All zero: nothing fails.
struct FaultPlan {
  std::atomic<Fault> fault;
  std::atomic<std::uint32_t> ordinal;  ///< of the call that fails; the first is 1
  std::atomic<std::uint32_t> calls;    ///< so far
  std::atomic<std::uint32_t> failed;   ///< how many of them failed
  std::array<char, 200> what;          ///< the first that did

  void Set(Fault new_fault, std::uint32_t new_ordinal) {
    what = {};
    calls = 0;
    failed = 0;
    ordinal = new_ordinal;
    fault = new_fault;
  }
  void Clear() { fault = Fault::kNone; }
};

inline constexpr char kFaultPlanVariable[] = "QUILLON_FAULT_PLAN";

/// The plan in a file, for the rest of the process's life. Null, with errno, when it cannot be had.
inline FaultPlan* MapFaultPlan(const char* path, int flags) {
  const int fd = ::open(path, O_RDWR | O_CLOEXEC | flags, 0600);
  if (fd < 0 || ((flags & O_CREAT) != 0 && ::ftruncate(fd, sizeof(FaultPlan)) != 0)) {
    return nullptr;
  }
  void* const memory =
      ::mmap(nullptr, sizeof(FaultPlan), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
  ::close(fd);
  return memory == MAP_FAILED ? nullptr : static_cast<FaultPlan*>(memory);
}

/// The plan for this program, by its environment; null when there is none.
inline FaultPlan* FaultPlanOfEnvironment() {
  const char* const path = std::getenv(kFaultPlanVariable);
  return path == nullptr ? nullptr : MapFaultPlan(path, 0);
}

}  // namespace quillon::test
