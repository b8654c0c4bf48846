#pragma once

#include <memory>
#include <stdexcept>
#include <string>
#include <system_error>

#include <fmt/format.h>

#include <velamailserver/log_exception.h>

#include "accounts/account_entry.h"

namespace quillon::platform {

/// What a lookup of an account says about itself when it fails.
struct AccountLookup {
  velamailserver::ErrorCode code;
  const char* subject;  ///< what is looked up
  const char* absence;  ///< that there is none
  const char* source_file;
  int absent_line;
  int failed_line;
};

/// The account that `find` answers for the key. Throws `LogException` when there is none or `find`
/// throws `std::system_error`.
template <typename Find, typename Key>
std::shared_ptr<const velamailserver::velasdk::AccountEntry> ResolveAccount(
    const AccountLookup& lookup, const Find& find, const Key& key) {
  using velamailserver::LogException;
  try {
    if (auto entry = find(key)) {
      return entry;
    }
  } catch (const std::system_error& error) {
    throw LogException(lookup.code,
                       fmt::format("cannot look up {} [{}]: {}", lookup.subject, key, error.what()),
                       3, lookup.source_file, lookup.failed_line);
  }
  throw LogException(lookup.code, fmt::format("{} [{}]", lookup.absence, key), 3,
                     lookup.source_file, lookup.absent_line);
}

/// What `ask` answers. Throws `LogException` when it throws `std::runtime_error`, because the
/// account database cannot tell; `purpose` is what could not be done.
template <typename Ask>
auto AskAccounts(velamailserver::ErrorCode code, const std::string& purpose,
                 const char* source_file, int line, const Ask& ask) {
  using velamailserver::LogException;
  try {
    return ask();
  } catch (const LogException&) {
    throw;
  } catch (const std::runtime_error& error) {
    throw LogException(code, fmt::format("cannot {}: {}", purpose, error.what()), 3, source_file,
                       line);
  }
}

}  // namespace quillon::platform
