#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <source_location>
#include <string>
#include <string_view>

// What the targets share. A target is a program of its own: the fuzzer hands
// `LLVMFuzzerTestOneInput` one input after the other, and takes for a bug whatever ends the
// program, an exception that escapes included.
namespace quillon::fuzz {

/// Ends the program when what should always hold does not.
inline void Require(bool holds, const char* what,
                    std::source_location where = std::source_location::current()) {
  if (!holds) {
    static_cast<void>(std::fprintf(stderr, "%s:%u: does not hold: %s\n", where.file_name(),
                                   static_cast<unsigned>(where.line()), what));
    std::abort();
  }
}

inline std::string_view TextOf(const std::uint8_t* data, std::size_t size) {
  return {reinterpret_cast<const char*>(data), size};
}

/// Cuts what is in front of the next `separator` off `rest`, and the separator.
inline std::string_view Cut(std::string_view& rest, std::string_view separator) {
  const std::string_view piece = rest.substr(0, rest.find(separator));
  rest.remove_prefix(piece.size() == rest.size() ? piece.size() : piece.size() + separator.size());
  return piece;
}

/// `text` with every `placeholder` replaced.
inline std::string Replaced(std::string text, std::string_view placeholder,
                            std::string_view value) {
  for (std::size_t at = 0; (at = text.find(placeholder, at)) != std::string::npos;
       at += value.size()) {
    text.replace(at, placeholder.size(), value);
  }
  return text;
}

}  // namespace quillon::fuzz

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);
