#pragma once

#include <functional>
#include <string>
#include <vector>

#include "support/program.h"

namespace quillon::test {

/// Runs a program on a terminal of its own, 80 columns wide: what appears on it, both streams of
/// output together, is the outcome's `output`. `typed` is typed at once and appears, too; "\x04" is
/// the end of the input.
Outcome RunOnTerminal(const std::vector<std::string>& arguments,
                      const std::vector<std::string>& environment = {},
                      const std::string& typed = "");

/// What somebody at a terminal waits for, what happens meanwhile, and what is typed then.
struct Exchange {
  std::string prompt;
  std::string typed;
  std::function<void()> when_asked = nullptr;
};

/// The same for a program that asks: each text is typed when its prompt has appeared, which those
/// before it have not used up. "\x03" interrupts.
Outcome Converse(const std::vector<std::string>& arguments, const std::vector<Exchange>& exchanges);

/// What a terminal makes of a text that a program writes.
std::string AsOnTerminal(const std::string& text);

}  // namespace quillon::test
