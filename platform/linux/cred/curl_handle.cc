#include "cred/curl_handle.h"

#include <unistd.h>

#include <cstddef>
#include <cstdlib>
#include <mutex>
#include <vector>

namespace quillon::platform {

namespace {

// Sets of connections at rest: as many as there ever were threads with a request at once, up to a
// limit.
class ConnectionPool {
 public:
  ConnectionPool() {
    // The library would append the keys of all connections to the file of this name, by whatever
    // identity it has. It looks once, now.
    ::unsetenv("SSLKEYLOGFILE");
    CheckCurl(::curl_global_init(CURL_GLOBAL_DEFAULT));
  }
  ConnectionPool(const ConnectionPool&) = delete;
  ConnectionPool& operator=(const ConnectionPool&) = delete;
  ~ConnectionPool() {
    ForgetThoseOfParent();
    for (CURLM* connections : sets_) {
      ::curl_multi_cleanup(connections);
    }
  }

  // The last one that was given back: its connections are the freshest.
  CURLM* Take() {
    {
      const std::lock_guard lock(mutex_);
      ForgetThoseOfParent();
      if (!sets_.empty()) {
        CURLM* const connections = sets_.back();
        sets_.pop_back();
        return connections;
      }
    }
    CURLM* const connections = ::curl_multi_init();
    if (connections == nullptr) {
      throw CurlError(CURLE_OUT_OF_MEMORY);
    }
    static_cast<void>(::curl_multi_setopt(connections, CURLMOPT_MAXCONNECTS, kMostConnections));
    return connections;
  }

  void GiveBack(CURLM* connections) {
    {
      const std::lock_guard lock(mutex_);
      if (sets_.size() < kMost) {
        sets_.push_back(connections);
        return;
      }
    }
    ::curl_multi_cleanup(connections);
  }

 private:
  static constexpr std::size_t kMost = 8;
  static constexpr long kMostConnections = 5;  // of one set

  // In a child, the connections are still its parent's: to use one or to end one properly would
  // break into what the parent says there.
  void ForgetThoseOfParent() {
    if (owner_ != ::getpid()) {
      sets_.clear();
      owner_ = ::getpid();
    }
  }

  std::mutex mutex_;
  // Giving back allocates nothing.
  std::vector<CURLM*> sets_ = [] {
    std::vector<CURLM*> sets;
    sets.reserve(kMost);
    return sets;
  }();
  pid_t owner_ = ::getpid();
};

ConnectionPool& Pool() {
  static ConnectionPool pool;
  return pool;
}

}  // namespace

CurlHandle::CurlHandle() : connections_(Pool().Take()), handle_(::curl_easy_init()) {
  if (handle_ == nullptr) {
    Pool().GiveBack(connections_);
    throw CurlError(CURLE_OUT_OF_MEMORY);
  }
}

CurlHandle::~CurlHandle() {
  static_cast<void>(::curl_multi_remove_handle(connections_, Get()));
  handle_.reset();
  Pool().GiveBack(connections_);
}

CURLcode CurlHandle::Perform() {
  constexpr int kMillisecondsPerRound = 1000;
  if (::curl_multi_add_handle(connections_, Get()) != CURLM_OK) {
    return CURLE_FAILED_INIT;
  }
  while (true) {
    int running = 0;
    int left = 0;
    if (::curl_multi_perform(connections_, &running) != CURLM_OK) {
      return CURLE_OUT_OF_MEMORY;
    }
    if (const CURLMsg* done = ::curl_multi_info_read(connections_, &left)) {
      return done->data.result;
    }
    if (::curl_multi_poll(connections_, nullptr, 0, kMillisecondsPerRound, nullptr) != CURLM_OK) {
      return CURLE_OUT_OF_MEMORY;
    }
  }
}

}  // namespace quillon::platform
