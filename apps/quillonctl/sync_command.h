#pragma once

#include <CLI/CLI.hpp>

#include "command.h"

/// Adds "quota" with "sync". Parsing it sets `command`, which must outlive `app`.
void AddSyncCommand(CLI::App& app, Command& command);
