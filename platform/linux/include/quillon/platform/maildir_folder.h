#pragma once

#include <string>

namespace quillon::platform {

/// Absolute path of the folder with the mail directories of the accounts: maildir.domain below
/// maildir.root, without a link, a "." or a slash too many in the latter. As it was configured
/// while that is missing. Safe for use from several threads.
std::string MaildirFolder();

}  // namespace quillon::platform
