#pragma once

#include <string>
#include <vector>

#include <CLI/CLI.hpp>
#include <json/value.h>

/// Adds the positional arguments NAME… to a command, the names of `owners`.
CLI::Option* AddNames(CLI::App& command, std::vector<std::string>& names,
                      const std::string& owners = "users");

/// See `ReadArguments`.
std::vector<std::string> ReadNames(const std::vector<std::string>& arguments);

Json::Value NameArray(const std::vector<std::string>& names);
