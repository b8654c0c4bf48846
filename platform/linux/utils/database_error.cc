#include "utils/database_error.h"

#include <string_view>

namespace quillon::platform {

namespace {

// SOCI begins some messages with the name of its own function.
std::string_view WithoutOrigin(std::string_view text) {
  const auto colon = text.find(": ");
  return text.starts_with("sqlite3_statement_backend::") && colon != std::string_view::npos
             ? text.substr(colon + 2)
             : text;
}

// libpq's messages have several lines.
std::string OnOneLine(std::string_view text) {
  std::string line;
  for (const char c : text) {
    const bool is_blank = c == ' ' || c == '\n' || c == '\t' || c == '\r';
    if (!is_blank) {
      line += c;
    } else if (!line.empty() && line.back() != ' ') {
      line += ' ';
    }
  }
  return line.substr(0, line.find_last_not_of(' ') + 1);
}

}  // namespace

std::string MessageOf(const soci::soci_error& error) {
  return OnOneLine(WithoutOrigin(error.get_error_message()));
}

}  // namespace quillon::platform
