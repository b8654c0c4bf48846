#pragma once

#include <CLI/CLI.hpp>

#include "command.h"

inline constexpr char kDoctor[] = "doctor";

/// Adds "doctor". `configuration` is the option that names the configuration file. Parsing it sets
/// `command`, which must outlive `app`.
void AddDoctorCommand(CLI::App& app, const CLI::Option& configuration, Command& command);
