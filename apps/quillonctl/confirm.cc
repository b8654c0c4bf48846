#include "confirm.h"

#include <unistd.h>

#include <cstdio>
#include <iostream>

#include <velamailserver/utils/text.h>

// The question goes to standard error: standard output may be a file.
bool CanAsk() { return ::isatty(STDIN_FILENO) == 1 && ::isatty(STDERR_FILENO) == 1; }

bool IsAgreed(const std::string& question) {
  static_cast<void>(std::fputs((question + " [y/N] ").c_str(), stderr));
  std::string answer;
  if (!std::getline(std::cin, answer)) {
    static_cast<void>(std::fputc('\n', stderr));  // nobody pressed the return key
  }
  answer = velamailserver::utils::ToLowerCase(answer);
  return answer == "y" || answer == "yes";
}
