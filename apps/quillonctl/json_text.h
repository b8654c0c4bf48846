#pragma once

#include <optional>
#include <string>

#include <json/value.h>

/// The document that a text is, nothing for a text that is none: it must be an object or an array,
/// without comments and with nothing behind it.
std::optional<Json::Value> ParseJson(const std::string& text);
