#pragma once

#include <CLI/CLI.hpp>

#include "command.h"
#include "remote.h"

inline constexpr char kHostCommands[] = "host";

/// Adds "host status", "host probe", "host call", "host batch" and "host trust". Parsing one of
/// them sets `command`, which must outlive `app`, as must `remote`.
void AddHostCommands(CLI::App& app, RemoteOptions& remote, Command& command);
