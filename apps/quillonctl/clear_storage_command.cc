#include "clear_storage_command.h"

#include <memory>

#include "names.h"
#include "removal.h"

namespace {

Removal RemovalOfUsers() {
  Removal removal;
  removal.api = "Quillon.MailServer.User";
  removal.method = "clear_storage";
  removal.parameter = "names";
  removal.columns = {{"NAME", Table::Align::kLeft, "name"}};
  removal.noun = "mail directory";
  removal.plural = "mail directories";
  removal.without = "without";
  removal.without_text = "no mail directory: ";
  return removal;
}

}  // namespace

void AddClearStorage(CLI::App& user, Command& command) {
  const auto options = std::make_shared<RemovalOptions>();
  CLI::App* clear = user.add_subcommand(
      "clear-storage", "Remove the mail directories of users for good, and their usage figures");
  AddNames(*clear, options->arguments)->required();
  AddRemovalOptions(*clear, *options);
  clear->footer("Example: quillonctl user clear-storage --dry-run alice bob");
  clear->callback([options, &command] {
    RequireAgreement(*options);
    options->owners = NameArray(ReadNames(options->arguments));
    command = [options] { return Remove(RemovalOfUsers(), *options); };
  });
}
