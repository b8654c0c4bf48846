#pragma once

#include <json/value.h>

#include <quillon/handlers/size.h>

using quillon::handlers::FormatSize;
using quillon::handlers::ParseSize;

/// The "usage" of all entries of a list together, or the largest number when it has no room for
/// them. One that is null counts as 0.
unsigned long long TotalUsage(const Json::Value& entries);
