#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace quillon::webapid {

/// The answer or the request of one call, between the front and a worker. `index` and `generation`
/// say which call of the front's it is; a worker only repeats them.
///
/// A request: `code` is the caller's role, the first part is the text of the request object, and
/// every two further parts are the key and the content of an upload. An answer: `code` is the HTTP
/// status, the only part is the text of the envelope.
struct Frame {
  std::uint32_t index = 0;
  std::uint32_t generation = 0;
  std::uint32_t code = 0;
  std::vector<std::string> parts;
};

/// What a request's `code` may be.
enum Role : std::uint32_t { kMonitor = 1, kAdmin = 2 };

/// Set in an answer's `code` beside the status: the worker ends now and wants no further request.
inline constexpr std::uint32_t kLastAnswer = 0x10000;

/// The other side does not speak this protocol, or sends more than a frame may hold.
class FrameError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

/// The largest frame, in bytes. An answer that is larger has to be replaced by a failure.
inline constexpr std::size_t kLargestFrame = 128 << 20;

/// The frame as it is sent. Throws `FrameError` when it is too large.
std::string Encode(const Frame& frame);

/// Puts frames together from what arrives in pieces of any size.
class FrameReader {
 public:
  void Append(std::string_view bytes) { buffer_.append(bytes); }
  /// The next whole frame, if there is one. Throws `FrameError`.
  std::optional<Frame> Next();

 private:
  std::string buffer_;
};

}  // namespace quillon::webapid
