#include "support/directory_entries.h"

#include <dlfcn.h>

namespace quillon::test {

std::function<bool(dirent64&)> on_directory_entry;

namespace {

bool Pass(dirent64& entry) {
  static bool is_asked = false;
  if (!on_directory_entry || is_asked) {
    return true;
  }
  is_asked = true;
  const bool answer = on_directory_entry(entry);
  is_asked = false;
  return answer;
}

}  // namespace

}  // namespace quillon::test

extern "C" __attribute__((visibility("default"))) dirent64* readdir64(DIR* directory) {
  using Readdir = dirent64* (*)(DIR*);
  static const auto real = reinterpret_cast<Readdir>(::dlsym(RTLD_NEXT, "readdir64"));
  dirent64* const entry = real(directory);
  return entry == nullptr || quillon::test::Pass(*entry) ? entry : nullptr;
}
