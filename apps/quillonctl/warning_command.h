#pragma once

#include <string>

#include <CLI/CLI.hpp>

#include "command.h"

inline constexpr char kWarning[] = "warning";

/// The administrator's message in a file, with its places to fill in. Throws `std::runtime_error`
/// for a file that cannot be read or is no message.
std::string ReadWarningMessage(const std::string& path);

/// Adds "warning" to the group "quota". Parsing it sets `command`, which must outlive `group`.
void AddWarningCommand(CLI::App& group, Command& command);
