#pragma once

#include <cstdint>
#include <functional>
#include <unordered_map>

#include <quillon/platform/file_descriptor.h>

namespace quillon::webapid {

/// The front's one loop: who is called when a descriptor is ready.
class Poller {
 public:
  using Handler = std::function<void(std::uint32_t events)>;

  Poller();

  /// The descriptor stays its owner's, who removes it before closing it. `events` are those of
  /// epoll.
  void Add(int fd, std::uint32_t events, Handler handler);
  void Change(int fd, std::uint32_t events);
  void Remove(int fd);
  /// Waits for that long at most, and calls whoever is concerned.
  void Wait(int milliseconds);

 private:
  void Control(int operation, int fd, std::uint32_t events);

  platform::FileDescriptor epoll_;
  std::unordered_map<int, Handler> handlers_;
};

}  // namespace quillon::webapid
