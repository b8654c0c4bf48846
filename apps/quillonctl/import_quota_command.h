#pragma once

#include <CLI/CLI.hpp>

#include "command.h"

/// Adds "import-quota" to the commands of users. Parsing it sets `command`, which must outlive
/// `user`.
void AddImportQuota(CLI::App& user, Command& command);
