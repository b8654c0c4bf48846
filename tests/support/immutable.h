#pragma once

#include <string>

#include "support/program.h"

namespace quillon::test {

/// A file or folder that not even root can change or remove while the object lives, where the file
/// system knows such.
class Immutable {
 public:
  explicit Immutable(const std::string& path) : path_(path), is_set_(Change("+i")) {}
  Immutable(const Immutable&) = delete;
  Immutable& operator=(const Immutable&) = delete;
  ~Immutable() { Change("-i"); }

  bool IsSet() const { return is_set_; }

 private:
  bool Change(const char* mode) const { return Run({"chattr", mode, path_}).exit_code == 0; }

  const std::string path_;
  const bool is_set_;
};

}  // namespace quillon::test
