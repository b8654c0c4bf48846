#pragma once

#include <string>

#include <json/value.h>

namespace quillon::webapid {

/// The text of a document, on one line.
std::string ToText(const Json::Value& document);

/// The envelope of a success, and of a failure.
std::string SuccessText(const Json::Value& data);
std::string FailureText(int code, const std::string& message);

/// Parses a request: `request` becomes the object, or the answer is false when the text is not
/// exactly one object, or nested too deeply.
bool ParseObject(const std::string& text, Json::Value& request);

}  // namespace quillon::webapid
