#include <cstddef>

#include <fmt/format.h>

#include <quillon/platform/printable.h>

namespace quillon::platform {

std::string Printable(std::string_view text) {
  std::string printable;
  printable.reserve(text.size());
  for (std::size_t i = 0; i < text.size(); ++i) {
    const auto byte = static_cast<unsigned char>(text[i]);
    const auto next = i + 1 < text.size() ? static_cast<unsigned char>(text[i + 1]) : 0U;
    if (byte == '\n') {
      printable += "\\n";
    } else if (byte == '\r') {
      printable += "\\r";
    } else if (byte == '\t') {
      printable += "\\t";
    } else if (byte == '\\') {
      printable += "\\\\";
    } else if (byte < 0x20 || byte == 0x7f) {
      printable += fmt::format("\\x{:02x}", byte);
    } else if (byte == 0xc2 && next >= 0x80 && next <= 0x9f) {
      printable += fmt::format("\\x{:02x}", next);
      ++i;
    } else {
      printable += text[i];
    }
  }
  return printable;
}

}  // namespace quillon::platform
