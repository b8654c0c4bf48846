#pragma once

#include <CLI/CLI.hpp>

#include "command.h"

/// Adds "no-owner list", "no-owner refresh" and "no-owner remove". Parsing one of them sets
/// `command`, which must outlive `app`.
void AddNoOwnerCommands(CLI::App& app, Command& command);
