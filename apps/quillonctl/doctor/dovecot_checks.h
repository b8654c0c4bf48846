#pragma once

#include <string>
#include <vector>

#include "doctor/check.h"

/// The checks of a Dovecot that holds the limits and keeps the figures: of its settings in
/// `folder`, and, where it is running, of what it makes of them. `source` is the file of our own
/// settings.
std::vector<Check> DovecotChecks(const std::string& folder, const std::string& source);
