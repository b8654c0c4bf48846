#pragma once

#include <functional>

/// What the command line asks for: does it and answers the exit code.
using Command = std::function<int()>;

inline constexpr int kDone = 0;
inline constexpr int kFailed = 1;
inline constexpr int kWrongUsage = 2;
