#pragma once

#include <string>

#include <CLI/CLI.hpp>

/// The path of the configuration file, by the option that names it.
std::string ConfigurationFile(const CLI::Option& option);
