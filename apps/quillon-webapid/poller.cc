#include "poller.h"

#include <sys/epoll.h>

#include <array>
#include <cerrno>
#include <system_error>
#include <utility>

namespace quillon::webapid {

namespace {

[[noreturn]] void Fail() { throw std::system_error(errno, std::generic_category(), "epoll"); }

}  // namespace

Poller::Poller() : epoll_(::epoll_create1(EPOLL_CLOEXEC)) {
  if (!epoll_.IsOpen()) {
    Fail();
  }
}

void Poller::Control(int operation, int fd, std::uint32_t events) {
  epoll_event event{};
  event.events = events;
  event.data.fd = fd;
  if (::epoll_ctl(epoll_.Get(), operation, fd, &event) != 0) {
    Fail();
  }
}

void Poller::Add(int fd, std::uint32_t events, Handler handler) {
  Control(EPOLL_CTL_ADD, fd, events);
  handlers_[fd] = std::move(handler);
}

void Poller::Change(int fd, std::uint32_t events) { Control(EPOLL_CTL_MOD, fd, events); }

void Poller::Remove(int fd) {
  Control(EPOLL_CTL_DEL, fd, 0);
  handlers_.erase(fd);
}

void Poller::Wait(int milliseconds) {
  // NOLINTNEXTLINE(cppcoreguidelines-pro-type-member-init): filled by epoll_wait
  std::array<epoll_event, 64> events;
  const int count =
      ::epoll_wait(epoll_.Get(), events.data(), static_cast<int>(events.size()), milliseconds);
  if (count < 0 && errno != EINTR) {
    Fail();
  }
  for (int i = 0; i < count; ++i) {
    const epoll_event& event = events[static_cast<std::size_t>(i)];
    const auto found = handlers_.find(event.data.fd);
    if (found != handlers_.end()) {
      const Handler handler = found->second;  // it may remove itself
      handler(event.events);
    }
  }
}

}  // namespace quillon::webapid
