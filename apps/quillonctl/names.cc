#include "names.h"

#include <fmt/format.h>

#include "options.h"

namespace {

constexpr char kArgument[] = "NAME";

}  // namespace

CLI::Option* AddNames(CLI::App& command, std::vector<std::string>& names) {
  return command.add_option(kArgument, names, "names of users; - reads them from standard input")
      ->type_name("");
}

std::vector<std::string> ReadNames(const std::vector<std::string>& arguments) {
  return ReadArguments(kArgument, arguments);
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
