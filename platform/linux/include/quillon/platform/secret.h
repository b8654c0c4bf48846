#pragma once

#include <string.h>

#include <string>
#include <string_view>
#include <utility>

namespace quillon::platform {

/// Overwrites a text and empties it. What a shorter text or a move has left behind in its memory
/// goes, too.
inline void Wipe(std::string& text) {
  text.resize(text.capacity());
  ::explicit_bzero(text.data(), text.size());
  text.clear();
}

/// A text that is overwritten before its memory is given up.
class Secret {
 public:
  Secret() = default;
  /// A copy of the text, which stays where it is.
  explicit Secret(std::string_view text) : text_(text) {}
  /// Takes a text over, and leaves nothing of it behind.
  static Secret Take(std::string&& text) {
    Secret secret;
    secret.text_ = std::move(text);
    Wipe(text);
    return secret;
  }
  Secret(const Secret& other) = default;
  /// Leaves nothing in `other`.
  Secret(Secret&& other) noexcept : text_(std::move(other.text_)) { Wipe(other.text_); }
  /// The old text goes with `other`.
  Secret& operator=(Secret other) noexcept {
    text_.swap(other.text_);
    return *this;
  }
  ~Secret() { Wipe(text_); }

  /// Puts a copy of the text in the place of the old one.
  void Set(std::string_view text) { *this = Secret(text); }

  /// Whether there is no text.
  bool IsEmpty() const { return text_.empty(); }
  /// The text, as long as this lives unchanged.
  const std::string& Get() const { return text_; }

 private:
  std::string text_;
};

}  // namespace quillon::platform
