#include "utils/base64.h"

#include <gsasl.h>
#include <string.h>

#include <algorithm>
#include <cstddef>
#include <memory>
#include <new>

namespace quillon::platform {

namespace {

using Convert = int (*)(const char*, std::size_t, char**, std::size_t*);

// Nothing for what does not convert.
std::optional<std::string> Converted(Convert convert, std::string_view input) {
  char* output = nullptr;
  std::size_t length = 0;
  const int result = convert(input.data(), input.size(), &output, &length);
  const std::unique_ptr<char, decltype(&::gsasl_free)> owner(output, ::gsasl_free);
  if (result == GSASL_MALLOC_ERROR) {
    throw std::bad_alloc();
  }
  if (result != GSASL_OK) {
    return std::nullopt;
  }
  std::string converted(output, length);
  ::explicit_bzero(output, length);  // it may be a key
  return converted;
}

}  // namespace

std::string EncodeBase64(std::string_view bytes) {
  return Converted(::gsasl_base64_to, bytes).value();
}

std::string EncodeBase64Url(std::string_view bytes) {
  std::string text = EncodeBase64(bytes);
  std::replace(text.begin(), text.end(), '+', '-');
  std::replace(text.begin(), text.end(), '/', '_');
  text.erase(std::find(text.begin(), text.end(), '='), text.end());
  return text;
}

// The library also takes texts whose last character has bits that say nothing.
std::optional<std::string> DecodeBase64(std::string_view text) {
  auto bytes = Converted(::gsasl_base64_from, text);
  if (bytes && EncodeBase64(*bytes) != text) {
    bytes.reset();
  }
  return bytes;
}

}  // namespace quillon::platform
