#pragma once

#include <string>

/// A line on standard error, when that is a terminal, which is gone at the end of the object's
/// life.
class Progress {
 public:
  Progress();
  Progress(const Progress&) = delete;
  Progress& operator=(const Progress&) = delete;
  ~Progress();

  /// Replaces the line.
  void Show(const std::string& text) const;

 private:
  const bool is_terminal_;
};
