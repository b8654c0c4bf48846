#include "configuration_file.h"

#include <filesystem>

#include <quillon/platform/configuration.h>

std::string AbsolutePath(const std::string& path) {
  const auto normal = std::filesystem::absolute(path).lexically_normal();
  return (normal.has_filename() ? normal : normal.parent_path()).string();
}

std::string ConfigurationFile(const CLI::Option& option) {
  return option.count() != 0 ? AbsolutePath(option.as<std::string>())
                             : quillon::platform::kDefaultConfigurationFile;
}
