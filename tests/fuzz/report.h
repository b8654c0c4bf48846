#pragma once

#include <cstdlib>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include <json/reader.h>

#include "fuzz/fuzz.h"
#include "recording_platform/decimal.h"
#include "recording_platform/world.h"
#include "support/typed_json.h"

// What the targets for the reports of users and of groups share. An input is a world, a line for
// each thing in it, then an empty line and the document that the report is written into:
//
//   account 1001 alice Alice     id, name and, where it is another one, the real name
//   limit 1001 2048              id and what the store has for it
//   warning 1001 1024
//   usage alice 77
//
// Of a line's first word only the first letter counts, so that few changes make another world.
namespace quillon::fuzz {

inline unsigned int NumberIn(std::string_view text) {
  return static_cast<unsigned int>(std::strtoul(std::string(text).c_str(), nullptr, 10));
}

/// Sets up the world and takes what it was made of off the input.
inline void TakeReportWorld(std::string_view& input, recording::World& world) {
  world = recording::World();
  while (!input.empty()) {
    std::string_view line = Cut(input, "\n");
    if (line.empty()) {
      return;
    }
    const char kind = line.front();
    Cut(line, " ");
    const std::string first(Cut(line, " "));
    const unsigned int id = NumberIn(first);
    if (kind == 'a') {
      const std::string name(Cut(line, " "));
      world.AddUser(name, id, line.empty() ? name : std::string(line));
      world.AddGroup(name, id);
    } else if (kind == 'l') {
      world.user_limits.emplace_back(id, line);
    } else if (kind == 'w') {
      world.user_warnings.emplace_back(id, line);
    } else if (kind == 'u') {
      world.usage.emplace(first, line);
    }
  }
}

inline std::optional<Json::Value> ParseDocument(std::string_view text) {
  const Json::CharReaderBuilder builder;
  const std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
  const std::string copy(text);  // the parser looks for the NUL behind it
  Json::Value document;
  try {
    if (!reader->parse(copy.data(), copy.data() + copy.size(), &document, nullptr)) {
      return std::nullopt;
    }
  } catch (const Json::Exception&) {
    return std::nullopt;  // nested too deeply
  }
  return document;
}

inline std::string LowerCase(std::string text) {
  for (char& c : text) {
    c = c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
  }
  return text;
}

/// What ends the straight-line report, where the library's has to end with an exception, too.
class Unreportable {};

inline unsigned long long Number(const std::string& text) {
  const auto number = recording::ParseDecimal(text);
  return number ? *number : throw Unreportable();
}

/// The value of the first record of that name. Throws for a record of an id that is nobody's,
/// wherever it is.
template <typename NameOf>
std::optional<std::string> FirstOf(const recording::StoredValues& records, const std::string& key,
                                   const NameOf& name_of) {
  std::optional<std::string> found;
  for (const auto& [id, value] : records) {
    if (LowerCase(name_of(id)) == key && !found) {
      found = value;
    }
  }
  return found;
}

/// A member's quota as a straight-line program would report it.
template <typename NameOf>
void ReportQuota(Json::Value& member, const std::string& key, const recording::StoredValues& limits,
                 const recording::StoredValues& warnings, const NameOf& name_of) {
  const auto limit = FirstOf(limits, key, name_of);
  const auto warning = FirstOf(warnings, key, name_of);
  const unsigned long long limit_bytes = limit ? Number(*limit) : 0;
  const unsigned long long warning_bytes = warning ? Number(*warning) : 0;
  if (warning_bytes > limit_bytes) {
    throw Unreportable();
  }
  member["quota"] = limit ? Json::Value(Json::UInt64{limit_bytes}) : Json::Value(0);
  member["remaining_usage_notification"] =
      warning ? Json::Value(Json::UInt64{limit_bytes - warning_bytes}) : Json::Value(0);
}

/// Holds a report against the straight-line one. Only the JSON library's exceptions and those that
/// the platform throws may end it.
template <typename PlatformError, typename Report, typename Model>
void HoldAgainst(const Json::Value& document, const Report& report, const Model& model) {
  std::string expected;
  try {
    Json::Value copy = document;
    model(copy);
    expected = test::Typed(copy);
  } catch (const Unreportable&) {
  } catch (const Json::Exception&) {
  }
  std::string reported;
  try {
    Json::Value copy = document;
    report(copy);
    Require(copy.size() == document.size(), "a report neither adds nor loses members");
    reported = test::Typed(copy);
  } catch (const PlatformError&) {
  } catch (const Json::Exception&) {
  }
  if (reported != expected) {
    static_cast<void>(
        std::fprintf(stderr, "expected: %s\nreported: %s\n", expected.c_str(), reported.c_str()));
  }
  Require(reported == expected, "the report is that of a straight-line program");
}

}  // namespace quillon::fuzz
