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

/// A transfer, over connections that earlier ones have left. For use by one thread.
///
/// Its handle is a new one each time. In a handle that was used before, 7.88 keeps a pointer to the
/// last header of the answer before, whose memory is gone, and writes to it when the next answer
/// begins with a folded header: any host could do that to us.
class CurlHandle {
 public:
  CurlHandle();
  CurlHandle(const CurlHandle&) = delete;
  CurlHandle& operator=(const CurlHandle&) = delete;
  /// What the settings point to must still be there.
  ~CurlHandle();

  CURL* Get() const { return handle_.get(); }

  template <typename Value>
  void Set(CURLoption option, Value value) {
    CheckCurl(::curl_easy_setopt(Get(), option, value));
  }

  /// Makes the transfer; once.
  CURLcode Perform();

 private:
  struct Free {
    void operator()(CURL* handle) const { ::curl_easy_cleanup(handle); }
  };

  CURLM* connections_;
  std::unique_ptr<CURL, Free> handle_;
};

}  // namespace quillon::platform
