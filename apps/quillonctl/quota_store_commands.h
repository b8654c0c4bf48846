#pragma once

#include <CLI/CLI.hpp>

#include "command.h"

inline constexpr char kQuota[] = "quota";

/// Adds "quota". Parsing a command of it sets `command`, which must outlive `app`.
void AddQuotaStoreCommands(CLI::App& app, Command& command);
