#include "cred/answer_shape.h"

#include <cstddef>

namespace quillon::platform {

namespace {

constexpr std::size_t kDeepest = 200;

// The position after the string that begins at `at`.
std::size_t SkipString(std::string_view json, std::size_t at) {
  for (++at; at < json.size() && json[at] != '"'; ++at) {
    if (json[at] == '\\') {
      ++at;
    }
  }
  return at + 1;
}

}  // namespace

// The parser's own limit ends in an exception. Comments, which it takes although JSON has none,
// cost it the square of their number.
const char* ObjectToShape(std::string_view json) {
  std::size_t depth = 0;
  for (std::size_t at = 0; at < json.size();) {
    const char c = json[at];
    if (c == '"') {
      at = SkipString(json, at);
      continue;
    }
    ++at;
    if (c == '[' || c == '{') {
      if (++depth > kDeepest) {
        return "is nested too deeply";
      }
    } else if ((c == ']' || c == '}') && depth > 0) {
      --depth;
    } else if (c == '/' && at < json.size() && (json[at] == '*' || json[at] == '/')) {
      return "holds comments";
    }
  }
  return nullptr;
}

}  // namespace quillon::platform
