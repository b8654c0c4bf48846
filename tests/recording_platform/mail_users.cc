#include <fmt/format.h>

#include <quillon/platform/mail_users.h>

#include "recording_platform/world.h"

namespace quillon::platform {

MailUserChanges SyncMailUsers(bool is_dry_run) {
  recording::TheWorld().Call(fmt::format("SyncMailUsers({})", is_dry_run));
  return recording::TheWorld().mail_user_changes;
}

}  // namespace quillon::platform
