#pragma once

#include <CLI/CLI.hpp>

#include "command.h"

/// Adds "trust" to the commands of hosts. Parsing it sets `command`, which must outlive `host`.
void AddHostTrust(CLI::App& host, Command& command);
