#include "names.h"

#include "options.h"

namespace {

constexpr char kArgument[] = "NAME";

}  // namespace

CLI::Option* AddNames(CLI::App& command, std::vector<std::string>& names,
                      const std::string& owners) {
  return command
      .add_option(kArgument, names, "names of " + owners + "; - reads them from standard input")
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
