#pragma once

#include <string>

#include <CLI/CLI.hpp>

/// The same path from the root, without a slash at its end.
std::string AbsolutePath(const std::string& path);

/// The absolute path of the configuration file, by the option that names it.
std::string ConfigurationFile(const CLI::Option& option);
