#pragma once

#include <CLI/CLI.hpp>

#include "command.h"

/// Adds "privilege grant", "privilege revoke" and "privilege list". Parsing one of them sets
/// `command`, which must outlive `app`.
void AddPrivilegeCommands(CLI::App& app, Command& command);
