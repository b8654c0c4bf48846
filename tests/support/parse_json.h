#pragma once

#include <sstream>
#include <string>

#include <json/reader.h>

namespace quillon::test {

/// The document that a JSON text spells.
inline Json::Value Parse(const std::string& text) {
  Json::Value value;
  std::istringstream(text) >> value;
  return value;
}

}  // namespace quillon::test
