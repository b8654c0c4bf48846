#pragma once

#include <CLI/CLI.hpp>

#include "command.h"

/// Adds "user list", "user set-quota", "user clear-quota" and "user import-quota". Parsing one of
/// them sets `command`, which must outlive `app`.
void AddUserCommands(CLI::App& app, Command& command);
