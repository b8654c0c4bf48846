#pragma once

#include <string>

#include <quillon/platform/secret.h>

// A password ends at the end of its line, which does not belong to it. One that is empty, longer
// than `kLongestPassword` or holds a NUL byte throws `std::runtime_error`; so does input that ends
// without one.

inline constexpr std::size_t kLongestPassword = 1024;

/// Asks for a password on the terminal that the process was started from, whatever its standard
/// streams are, and does not show what is typed. A signal that ends or stops the process meanwhile
/// finds the terminal as it was.
quillon::platform::Secret AskPassword(const std::string& prompt);

/// Asks twice, and throws when the answers differ.
quillon::platform::Secret AskNewPassword(const std::string& prompt);

/// Reads a password from a descriptor, and nothing that follows its line.
quillon::platform::Secret ReadPassword(int fd);

/// Reads a password from a file, which must belong to the user or to root and not be open to
/// others: a password that others may read is none.
quillon::platform::Secret ReadPasswordFile(const std::string& path);
