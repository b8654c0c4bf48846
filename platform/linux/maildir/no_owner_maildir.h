#pragma once

#include <optional>
#include <string>

#include "maildir/maildir.h"

namespace quillon::platform {

/// Opens the mail directory at a path from anywhere. Nothing when there is none, or when it is
/// somebody's, as it is when its owner cannot be found out. Throws as `OpenMaildirAt` does.
std::optional<MaildirAt> OpenOwnerlessMaildir(const std::string& path);

}  // namespace quillon::platform
