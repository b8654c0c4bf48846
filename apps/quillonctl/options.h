#pragma once

#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include <CLI/CLI.hpp>
#include <json/value.h>

/// What `parse` makes of the argument or option `name`. What is wrong with the text is the message
/// of the `std::invalid_argument` that `parse` throws, and of the `CLI::ValidationError` thrown for
/// it.
template <typename Parse>
auto Parsed(const std::string& name, const std::string& text, Parse parse) {
  try {
    return parse(text);
  } catch (const std::invalid_argument& error) {
    throw CLI::ValidationError(name, error.what());
  }
}

/// An option that `parse` reads; CLI11 itself takes an empty number for none, a leading 0 for octal
/// and a number that is too large for the largest.
template <typename Value, typename Parse>
CLI::Option* AddParsed(CLI::App& command, const std::string& name, Value& value, Parse parse,
                       const std::string& description) {
  return command.add_option_function<std::string>(
      name, [name, &value, parse](const std::string& text) { value = Parsed(name, text, parse); },
      description);
}

/// Which entries of a list to show.
struct Page {
  std::optional<unsigned long long> offset;
  std::optional<unsigned long long> limit;
};

/// Adds --offset and --limit to a command that lists `entries`.
void AddPage(CLI::App& command, Page& page, const std::string& entries);

/// Sets "offset" and "limit" of a call's parameters.
void SetPage(const Page& page, Json::Value& params);

/// The positional arguments `name` with each "-" replaced by the lines of standard input that are
/// not empty. Throws `CLI::ValidationError` when "-" stands for nothing at all and
/// `std::system_error` when standard input cannot be read.
std::vector<std::string> ReadArguments(const std::string& name,
                                       const std::vector<std::string>& arguments);
