#include "export_command.h"

#include <filesystem>
#include <memory>
#include <string>

#include <fmt/format.h>

#include <quillon/platform/configuration.h>
#include <quillon/platform/replace_file.h>

#include "configuration_file.h"
#include "dovecot_settings.h"
#include "output.h"

namespace {

namespace fs = std::filesystem;

struct ExportOptions {
  std::string output;  // empty: standard output
};

int ExportDovecot(const ExportOptions& options, const std::string& source) {
  const std::string folder = options.output.empty() ? kDovecotFolder : AbsolutePath(options.output);
  const auto files = DovecotSettings(*quillon::platform::CurrentConfiguration(), source, folder);
  for (const SettingsFile& file : files) {
    if (options.output.empty()) {
      WriteOutput(fmt::format("### {}\n{}\n", file.path, file.content));
    } else {
      fs::create_directories(fs::path(file.path).parent_path());
      quillon::platform::ReplaceFile(file.path, file.content, file.mode);
      WriteOutput(file.path + "\n");
    }
  }
  return kDone;
}

}  // namespace

void AddExportCommands(CLI::App& app, const CLI::Option& configuration, Command& command) {
  CLI::App* group = app.add_subcommand(kExport, "Settings for the programs around the mail server");
  group->require_subcommand(0, 1);
  group->footer("Example: quillonctl export dovecot");

  const auto options = std::make_shared<ExportOptions>();
  CLI::App* dovecot = group->add_subcommand(
      "dovecot", "Settings that have Dovecot 2.3 hold the limits and keep the figures");
  dovecot
      ->add_option("--output", options->output,
                   "Dovecot's folder of settings, to write into; otherwise they are printed")
      ->type_name("DIR");
  dovecot->footer("Example: quillonctl export dovecot --output /etc/dovecot");
  dovecot->callback([options, &configuration, &command] {
    command = [options, &configuration] {
      return ExportDovecot(*options, ConfigurationFile(configuration));
    };
  });
}
