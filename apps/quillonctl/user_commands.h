#pragma once

#include <CLI/CLI.hpp>

#include "command.h"

/// Adds "user list", "user set-quota" and "user clear-quota". Parsing one of them sets `command`,
/// which must outlive `app`.
void AddUserCommands(CLI::App& app, Command& command);
