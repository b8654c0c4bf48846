#include "json_text.h"

#include <memory>

#include <json/reader.h>

std::optional<Json::Value> ParseJson(const std::string& text) {
  Json::CharReaderBuilder strict;
  Json::CharReaderBuilder::strictMode(&strict.settings_);
  const std::unique_ptr<Json::CharReader> reader(strict.newCharReader());
  Json::Value document;
  try {
    if (reader->parse(text.data(), text.data() + text.size(), &document, nullptr)) {
      return document;
    }
  } catch (const Json::Exception&) {
    // Nested too deeply.
  }
  return std::nullopt;
}
