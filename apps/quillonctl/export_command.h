#pragma once

#include <CLI/CLI.hpp>

#include "command.h"

inline constexpr char kExport[] = "export";

/// Adds "export". `configuration` is the option that names the configuration file. Parsing a
/// command of it sets `command`, which must outlive `app`.
void AddExportCommands(CLI::App& app, const CLI::Option& configuration, Command& command);
