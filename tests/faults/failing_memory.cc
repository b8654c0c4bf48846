// Loaded into a program before the C library: fails the allocation that the plan names, whoever
// asks for it.
#include <cerrno>
#include <cstdlib>

#include "faults/fault_plan.h"

// The C library's own.
extern "C" void* __libc_malloc(size_t size);
extern "C" void* __libc_calloc(size_t count, size_t size);
extern "C" void* __libc_realloc(void* memory, size_t size);
extern "C" void* __libc_memalign(size_t alignment, size_t size);

namespace {

using quillon::test::Fault;
using quillon::test::FaultPlan;

FaultPlan* plan = nullptr;

[[gnu::constructor]] void FindPlan() { plan = quillon::test::FaultPlanOfEnvironment(); }

bool IsDenied() {
  if (plan == nullptr || plan->fault != Fault::kNoMemory || ++plan->calls != plan->ordinal) {
    return false;
  }
  ++plan->failed;
  errno = ENOMEM;
  return true;
}

}  // namespace

extern "C" {

#define QUILLON_EXPORT [[gnu::visibility("default")]]

QUILLON_EXPORT void* malloc(size_t size) { return IsDenied() ? nullptr : __libc_malloc(size); }

QUILLON_EXPORT void* calloc(size_t count, size_t size) {
  return IsDenied() ? nullptr : __libc_calloc(count, size);
}

QUILLON_EXPORT void* realloc(void* memory, size_t size) {
  return IsDenied() ? nullptr : __libc_realloc(memory, size);
}

QUILLON_EXPORT void* memalign(size_t alignment, size_t size) {
  return IsDenied() ? nullptr : __libc_memalign(alignment, size);
}

QUILLON_EXPORT void* aligned_alloc(size_t alignment, size_t size) {
  return memalign(alignment, size);
}

QUILLON_EXPORT int posix_memalign(void** memory, size_t alignment, size_t size) {
  void* const found = memalign(alignment, size);
  if (found == nullptr) {
    return ENOMEM;
  }
  *memory = found;
  return 0;
}

#undef QUILLON_EXPORT

}  // extern "C"
