#include "cred/curl_handle.h"

#include <unistd.h>

#include <cstddef>
#include <cstdlib>
#include <mutex>
#include <vector>

namespace quillon::platform {

namespace {

// Handles at rest: as many as there ever were threads with a request at once, up to a limit.
class HandlePool {
 public:
  HandlePool() {
    // The library would append the keys of all connections to the file of this name, by whatever
    // identity it has. It looks once, now.
    ::unsetenv("SSLKEYLOGFILE");
    CheckCurl(::curl_global_init(CURL_GLOBAL_DEFAULT));
  }
  HandlePool(const HandlePool&) = delete;
  HandlePool& operator=(const HandlePool&) = delete;
  ~HandlePool() {
    ForgetThoseOfParent();
    for (CURL* handle : handles_) {
      ::curl_easy_cleanup(handle);
    }
  }

  // The last one that was given back: its connections are the freshest.
  CURL* Take() {
    {
      const std::lock_guard lock(mutex_);
      ForgetThoseOfParent();
      if (!handles_.empty()) {
        CURL* const handle = handles_.back();
        handles_.pop_back();
        return handle;
      }
    }
    CURL* const handle = ::curl_easy_init();
    if (handle == nullptr) {
      throw CurlError(CURLE_OUT_OF_MEMORY);
    }
    return handle;
  }

  void GiveBack(CURL* handle) {
    ::curl_easy_reset(handle);
    {
      const std::lock_guard lock(mutex_);
      if (handles_.size() < kMost) {
        handles_.push_back(handle);
        return;
      }
    }
    ::curl_easy_cleanup(handle);
  }

 private:
  static constexpr std::size_t kMost = 8;

  // In a child, the connections are still its parent's: to use one or to end one properly would
  // break into what the parent says there.
  void ForgetThoseOfParent() {
    if (owner_ != ::getpid()) {
      handles_.clear();
      owner_ = ::getpid();
    }
  }

  std::mutex mutex_;
  // Giving back allocates nothing.
  std::vector<CURL*> handles_ = [] {
    std::vector<CURL*> handles;
    handles.reserve(kMost);
    return handles;
  }();
  pid_t owner_ = ::getpid();
};

HandlePool& Pool() {
  static HandlePool pool;
  return pool;
}

}  // namespace

CurlHandle::CurlHandle() : handle_(Pool().Take()) {}

CurlHandle::~CurlHandle() { Pool().GiveBack(handle_); }

}  // namespace quillon::platform
