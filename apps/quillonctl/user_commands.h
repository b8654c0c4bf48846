#pragma once

#include <CLI/CLI.hpp>

#include "command.h"

/// Adds "user list", "user show", "user set-quota", "user clear-quota", "user import-quota" and
/// "user clear-storage". Parsing one of them sets `command`, which must outlive `app`.
void AddUserCommands(CLI::App& app, Command& command);
