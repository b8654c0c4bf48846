#pragma once

#include <curl/curl.h>

#include <memory>
#include <stdexcept>
#include <string>

namespace quillon::platform {

/// A failure of the HTTP library.
class CurlError : public std::runtime_error {
 public:
  explicit CurlError(CURLcode code) : CurlError(code, ::curl_easy_strerror(code)) {}
  CurlError(CURLcode code, const std::string& what) : std::runtime_error(what), code_(code) {}

  CURLcode code() const { return code_; }

 private:
  CURLcode code_;
};

inline void CheckCurl(CURLcode code) {
  if (code != CURLE_OK) {
    throw CurlError(code);
  }
}

/// What the library allocates, with its own way of freeing it; null throws.
template <auto* free, typename Thing>
auto OwnCurl(Thing* thing) {
  struct Free {
    void operator()(Thing* owned) const { free(owned); }
  };
  if (thing == nullptr) {
    throw CurlError(CURLE_OUT_OF_MEMORY);
  }
  return std::unique_ptr<Thing, Free>(thing);
}

/// A handle of the library that others used before, so that the connections which it keeps can be
/// used again. Settings are those of a new one. For use by one thread.
class CurlHandle {
 public:
  CurlHandle();
  CurlHandle(const CurlHandle&) = delete;
  CurlHandle& operator=(const CurlHandle&) = delete;
  /// Keeps the handle for the next one. What the settings point to must still be there.
  ~CurlHandle();

  CURL* Get() const { return handle_; }

  template <typename Value>
  void Set(CURLoption option, Value value) {
    CheckCurl(::curl_easy_setopt(handle_, option, value));
  }

 private:
  CURL* handle_;
};

}  // namespace quillon::platform
