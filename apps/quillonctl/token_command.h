#pragma once

#include <CLI/CLI.hpp>

#include "command.h"
#include "remote.h"

inline constexpr char kToken[] = "token";

/// Adds "token". Parsing it sets `command`, which must outlive `app`, as must `remote`.
void AddTokenCommand(CLI::App& app, RemoteOptions& remote, Command& command);
