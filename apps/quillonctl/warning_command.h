#pragma once

#include <CLI/CLI.hpp>

#include "command.h"

inline constexpr char kWarning[] = "warning";

/// Adds "warning" to the group "quota". Parsing it sets `command`, which must outlive `group`.
void AddWarningCommand(CLI::App& group, Command& command);
