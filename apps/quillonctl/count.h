#pragma once

#include <string>

/// "1 message", "2 messages".
std::string Count(unsigned long long count, const std::string& noun, const std::string& plural);

/// "3 of " in front of the count of all when a list shows 3 of them only; nothing when it shows
/// all.
std::string PartOf(unsigned long long shown, unsigned long long total);

std::string CountOfUsers(unsigned long long count);
std::string CountOfGroups(unsigned long long count);
