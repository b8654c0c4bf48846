#include "options.h"

#include <cerrno>
#include <cstdio>
#include <iostream>
#include <limits>
#include <system_error>

#include "number.h"

namespace {

constexpr char kStandardInput[] = "-";

void AppendStandardInput(std::vector<std::string>& arguments) {
  for (std::string line; std::getline(std::cin, line);) {
    if (!line.empty()) {
      arguments.push_back(line);
    }
  }
  // Acting on half of them would be worse than on none.
  if (std::ferror(stdin) != 0) {
    throw std::system_error(errno, std::generic_category(), "cannot read standard input");
  }
}

unsigned long long ParseOffset(const std::string& text) {
  return ParseWholeNumber(text, std::numeric_limits<Json::UInt64>::max());
}

// The APIs' limit is a signed number.
unsigned long long ParseLimit(const std::string& text) {
  return ParseWholeNumber(text, std::numeric_limits<Json::Int64>::max());
}

}  // namespace

void AddPage(CLI::App& command, Page& page, const std::string& entries) {
  AddParsed(command, "--offset", page.offset, ParseOffset, "leave out the first N " + entries)
      ->type_name("N");
  AddParsed(command, "--limit", page.limit, ParseLimit, "show at most N " + entries)
      ->type_name("N");
}

void SetPage(const Page& page, Json::Value& params) {
  if (page.offset) {
    params["offset"] = Json::UInt64{*page.offset};
  }
  if (page.limit) {
    params["limit"] = Json::UInt64{*page.limit};
  }
}

std::vector<std::string> ReadArguments(const std::string& name,
                                       const std::vector<std::string>& arguments) {
  std::vector<std::string> read;
  for (const std::string& argument : arguments) {
    if (argument == kStandardInput) {
      AppendStandardInput(read);
    } else {
      read.push_back(argument);
    }
  }
  if (read.empty() && !arguments.empty()) {
    throw CLI::ValidationError(name, "none on standard input");
  }
  return read;
}
