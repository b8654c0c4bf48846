#pragma once

#include <string>

#include <json/value.h>

#include <quillon/handlers/size.h>

using quillon::handlers::FormatSize;
using quillon::handlers::ParseSize;

/// The "usage" of all entries of a list together, or the largest number when it has no room for
/// them. One that is null counts as 0.
unsigned long long TotalUsage(const Json::Value& entries);

/// A size as a table shows it: exactly or for people, "-" for one that is null.
std::string SizeCell(const Json::Value& bytes, bool in_bytes);

/// The same for a limit as it is stored, where 0 means that there is none.
std::string StoredLimitCell(const Json::Value& limit, bool in_bytes);
