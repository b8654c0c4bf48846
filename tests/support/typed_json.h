#pragma once

#include <string>

#include <json/writer.h>

namespace quillon::test {

/// JSON text without blanks.
inline std::string Compact(const Json::Value& value) {
  Json::StreamWriterBuilder builder;
  builder["indentation"] = "";
  return Json::writeString(builder, value);
}

/// JSON text that tells the types of integers apart: 0 is a signed one, 0u an unsigned one.
inline std::string Typed(const Json::Value& value) {
  if (value.isNull() || !(value.isArray() || value.isObject())) {
    return Compact(value) + (value.type() == Json::uintValue ? "u" : "");
  }
  std::string members;
  for (auto member = value.begin(); member != value.end(); ++member) {
    members += members.empty() ? "" : ",";
    members += value.isObject() ? Compact(member.key()) + ":" : "";
    members += Typed(*member);
  }
  return value.isObject() ? "{" + members + "}" : "[" + members + "]";
}

}  // namespace quillon::test
