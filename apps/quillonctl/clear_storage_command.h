#pragma once

#include <CLI/CLI.hpp>

#include "command.h"

/// Adds "user clear-storage" to the group `user`. Parsing it sets `command`, which must outlive
/// `user`.
void AddClearStorage(CLI::App& user, Command& command);
