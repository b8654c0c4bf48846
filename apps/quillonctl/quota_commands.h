#pragma once

#include <string>

#include <CLI/CLI.hpp>

#include "command.h"

/// Who has quotas: the API whose "set_quota" and "clear_quota" change them, and how they are
/// called.
struct QuotaOwners {
  const char* api;
  std::string noun;
  std::string plural;   ///< the member of an answer that lists them, too
  std::string example;  ///< names of some
};

/// Adds "set-quota" and "clear-quota" to `group`. Parsing one of them sets `command`, which must
/// outlive `group`.
void AddQuotaCommands(CLI::App& group, const QuotaOwners& owners, Command& command);
