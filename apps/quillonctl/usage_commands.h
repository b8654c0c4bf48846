#pragma once

#include <CLI/CLI.hpp>

#include "command.h"

/// Adds "usage count". Parsing it sets `command`, which must outlive `app`.
void AddUsageCommands(CLI::App& app, Command& command);
