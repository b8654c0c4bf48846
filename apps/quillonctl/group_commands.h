#pragma once

#include <CLI/CLI.hpp>

#include "command.h"

/// Adds "group list", "group set-quota", "group clear-quota" and "group share-quota". Parsing one
/// of them sets `command`, which must outlive `app`.
void AddGroupCommands(CLI::App& app, Command& command);
