#include "configuration_file.h"

#include <quillon/platform/configuration.h>

std::string ConfigurationFile(const CLI::Option& option) {
  return option.count() != 0 ? option.as<std::string>()
                             : quillon::platform::kDefaultConfigurationFile;
}
