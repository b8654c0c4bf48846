#pragma once

#include <optional>

#include "support/pipe.h"

namespace quillon::test {

/// Waits for processes in the background that nobody else knows of: those that are started, by
/// whomever, while the object lives and that keep the descriptors they inherit.
class Descendants {
 public:
  Descendants() { pipe_.emplace(); }
  Descendants(const Descendants&) = delete;
  Descendants& operator=(const Descendants&) = delete;
  ~Descendants() { pipe_->ReadAll(); }

  /// Returns when all of them have ended.
  void Wait() {
    pipe_->ReadAll();
    pipe_.emplace();
  }

 private:
  std::optional<Pipe> pipe_;  // they can write to it, too, and never do
};

}  // namespace quillon::test
