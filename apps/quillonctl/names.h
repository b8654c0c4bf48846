#pragma once

#include <string>
#include <vector>

#include <CLI/CLI.hpp>
#include <json/value.h>

/// Adds the positional arguments NAME… to a command.
CLI::Option* AddNames(CLI::App& command, std::vector<std::string>& names);

/// The names with each "-" replaced by the lines of standard input that are not empty. Throws
/// `CLI::ValidationError` when "-" stands for no name at all and `std::system_error` when standard
/// input cannot be read.
std::vector<std::string> ReadNames(const std::vector<std::string>& arguments);

Json::Value NameArray(const std::vector<std::string>& names);

/// "1 user", "2 users".
std::string CountOfUsers(unsigned long long count);
