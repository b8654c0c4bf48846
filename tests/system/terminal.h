#pragma once

#include <functional>
#include <string>
#include <vector>

#include "support/program.h"

namespace quillon::test {

/// Runs a program on a terminal of its own, 80 columns wide: what appears on it, both streams of
/// output together, is the outcome's `output`. `typed` is typed at once and appears, too; "\x04" is
/// the end of the input. With `when_asked` it is typed only after a question has appeared and that
/// was called.
Outcome RunOnTerminal(const std::vector<std::string>& arguments,
                      const std::vector<std::string>& environment = {},
                      const std::string& typed = "",
                      const std::function<void()>& when_asked = nullptr);

}  // namespace quillon::test
