#pragma once

#include <CLI/CLI.hpp>

#include "command.h"

/// Adds "user show" to the group `user`. Parsing it sets `command`, which must outlive `user`.
void AddUserShow(CLI::App& user, Command& command);
