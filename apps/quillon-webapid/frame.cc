#include "frame.h"

#include <array>
#include <cstring>

namespace quillon::webapid {

namespace {

// The length of what follows it, and the members. Both sides are one machine: its byte order.
using Header = std::array<std::uint32_t, 4>;

void AppendNumber(std::string& text, std::uint32_t number) {
  text.append(reinterpret_cast<const char*>(&number), sizeof(number));
}

std::uint32_t TakeNumber(std::string_view& text) {
  std::uint32_t number = 0;
  if (text.size() < sizeof(number)) {
    throw FrameError("a frame is cut short");
  }
  std::memcpy(&number, text.data(), sizeof(number));
  text.remove_prefix(sizeof(number));
  return number;
}

std::string TakePart(std::string_view& text) {
  const std::uint32_t length = TakeNumber(text);
  if (length > text.size()) {
    throw FrameError("a part is longer than its frame");
  }
  std::string part(text.substr(0, length));
  text.remove_prefix(length);
  return part;
}

}  // namespace

std::string Encode(const Frame& frame) {
  std::size_t length = sizeof(Header);
  for (const std::string& part : frame.parts) {
    length += sizeof(std::uint32_t) + part.size();
  }
  if (length > kLargestFrame) {
    throw FrameError("too large for a frame");
  }
  std::string text;
  text.reserve(length);
  AppendNumber(text, static_cast<std::uint32_t>(length - sizeof(std::uint32_t)));
  AppendNumber(text, frame.index);
  AppendNumber(text, frame.generation);
  AppendNumber(text, frame.code);
  for (const std::string& part : frame.parts) {
    AppendNumber(text, static_cast<std::uint32_t>(part.size()));
    text += part;
  }
  return text;
}

std::optional<Frame> FrameReader::Next() {
  std::string_view rest = buffer_;
  if (rest.size() < sizeof(Header)) {
    return std::nullopt;
  }
  const std::uint32_t length = TakeNumber(rest);
  if (length < sizeof(Header) - sizeof(length) || length > kLargestFrame) {
    throw FrameError("a frame has an impossible length");
  }
  if (rest.size() < length) {
    return std::nullopt;
  }
  rest = rest.substr(0, length);
  Frame frame;
  frame.index = TakeNumber(rest);
  frame.generation = TakeNumber(rest);
  frame.code = TakeNumber(rest);
  while (!rest.empty()) {
    frame.parts.push_back(TakePart(rest));
  }
  buffer_.erase(0, sizeof(length) + length);
  if (buffer_.empty()) {
    buffer_.shrink_to_fit();  // one large answer must not stay for good
  }
  return frame;
}

}  // namespace quillon::webapid
