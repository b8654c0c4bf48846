// The supervisor of the web server.
#include <syslog.h>
#include <unistd.h>

#include <cstdlib>
#include <exception>
#include <iostream>
#include <string>

#include <CLI/CLI.hpp>

#include <quillon/platform/configuration.h>
#include <velamailserver/maillog.h>

#include "supervisor.h"

namespace {

constexpr char kSourceFile[] = "apps/quillon-webapid/main";
constexpr int kFailedLine = 23;

}  // namespace

int main(int argc, char** argv) {
  CLI::App app("Serves the WebAPIs of this host to its cluster.", "quillon-webapid");
  std::string configuration_file;
  app.add_option("--config", configuration_file, "configuration file")
      ->type_name("FILE")
      ->default_str(quillon::platform::kDefaultConfigurationFile);
  app.set_version_flag("--version", "quillon-webapid " QUILLON_VERSION);
  CLI11_PARSE(app, argc, argv);
  if (::geteuid() != 0) {
    std::cerr << "quillon-webapid: has to be started as root\n";
    return EXIT_FAILURE;
  }
  try {
    return quillon::webapid::Supervisor(configuration_file).Run();
  } catch (const std::exception& error) {
    std::cerr << "quillon-webapid: " << error.what() << '\n';
    maillog(LOG_ERR, "%s:%d %s", kSourceFile, kFailedLine, error.what());
  }
  return EXIT_FAILURE;
}
