#pragma once

#include <CLI/CLI.hpp>

#include "command.h"

inline constexpr char kAccountCommands[] = "account";

/// Adds "account add", "account list", "account remove", "account passwd" and "account role": the
/// accounts of this host's web server. Parsing one of them sets `command`, which must outlive
/// `app`.
void AddAccountCommands(CLI::App& app, Command& command);
