#include "progress.h"

#include <unistd.h>

#include <cstdio>

Progress::Progress() : is_terminal_(::isatty(STDERR_FILENO) == 1) {}

Progress::~Progress() { Show(""); }

void Progress::Show(const std::string& text) const {
  constexpr char kEraseToEndOfLine[] = "\x1b[K";
  if (is_terminal_) {
    static_cast<void>(std::fputs(("\r" + text + kEraseToEndOfLine).c_str(), stderr));
  }
}
