#include "names.h"

#include <cerrno>
#include <cstdio>
#include <iostream>
#include <system_error>

#include <fmt/format.h>

namespace {

constexpr char kStandardInput[] = "-";

void AppendStandardInput(std::vector<std::string>& names) {
  for (std::string line; std::getline(std::cin, line);) {
    if (!line.empty()) {
      names.push_back(line);
    }
  }
  // Acting on half of the names would be worse than on none.
  if (std::ferror(stdin) != 0) {
    throw std::system_error(errno, std::generic_category(), "cannot read standard input");
  }
}

}  // namespace

CLI::Option* AddNames(CLI::App& command, std::vector<std::string>& names) {
  return command.add_option("NAME", names, "names of users; - reads them from standard input")
      ->type_name("");
}

std::vector<std::string> ReadNames(const std::vector<std::string>& arguments) {
  std::vector<std::string> names;
  for (const std::string& argument : arguments) {
    if (argument == kStandardInput) {
      AppendStandardInput(names);
    } else {
      names.push_back(argument);
    }
  }
  if (names.empty() && !arguments.empty()) {
    throw CLI::ValidationError("NAME", "no names on standard input");
  }
  return names;
}

Json::Value NameArray(const std::vector<std::string>& names) {
  Json::Value array(Json::arrayValue);
  for (const std::string& name : names) {
    array.append(name);
  }
  return array;
}

std::string CountOfUsers(unsigned long long count) {
  return fmt::format("{} {}", count, count == 1 ? "user" : "users");
}
