#pragma once

#include <CLI/CLI.hpp>

#include "command.h"
#include "remote.h"

/// Adds "batch" to the commands of hosts. Parsing it sets `command`, which must outlive `host`, as
/// must `remote`.
void AddHostBatch(CLI::App& host, RemoteOptions& remote, Command& command);
