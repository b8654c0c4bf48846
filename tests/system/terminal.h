#pragma once

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

}  // namespace quillon::test
