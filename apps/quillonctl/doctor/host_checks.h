#pragma once

#include <vector>

#include <quillon/platform/mail_users.h>

#include "doctor/check.h"

/// The checks of what is this system's own: accounts, mail directories, stores, folders.
std::vector<Check> HostChecks();

/// What a synchronisation of the mail users would change, as it was when this was called first.
/// Throws `LogException`.
const quillon::platform::MailUserChanges& ChangesOfMailUsers();
