#include "control.h"

#include <sys/socket.h>
#include <sys/uio.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <system_error>

namespace quillon::webapid {

namespace {

constexpr std::size_t kMostDescriptors = 4;

struct Ancillary {
  alignas(cmsghdr) std::array<char, CMSG_SPACE(sizeof(int) * kMostDescriptors)> bytes{};
};

void TakeDescriptors(msghdr& header, std::vector<platform::FileDescriptor>& descriptors) {
  for (cmsghdr* part = CMSG_FIRSTHDR(&header); part != nullptr; part = CMSG_NXTHDR(&header, part)) {
    if (part->cmsg_level != SOL_SOCKET || part->cmsg_type != SCM_RIGHTS) {
      continue;
    }
    const std::size_t count = (part->cmsg_len - CMSG_LEN(0)) / sizeof(int);
    for (std::size_t i = 0; i < count; ++i) {
      int fd = -1;
      std::memcpy(&fd, CMSG_DATA(part) + i * sizeof(int), sizeof(fd));
      descriptors.emplace_back(fd);
    }
  }
}

}  // namespace

ControlSockets MakeControlSockets() {
  std::array<int, 2> ends{};
  if (::socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends.data()) != 0) {
    throw std::system_error(errno, std::generic_category(), "socketpair");
  }
  return {platform::FileDescriptor(ends[0]), platform::FileDescriptor(ends[1])};
}

bool Send(int socket, const ControlMessage& message, const std::vector<int>& descriptors) {
  ControlMessage copy = message;
  iovec data{&copy, sizeof(copy)};
  Ancillary ancillary;
  msghdr header{};
  header.msg_iov = &data;
  header.msg_iovlen = 1;
  if (!descriptors.empty()) {
    const std::size_t length = descriptors.size() * sizeof(int);
    header.msg_control = ancillary.bytes.data();
    header.msg_controllen = CMSG_SPACE(length);
    cmsghdr* part = CMSG_FIRSTHDR(&header);
    part->cmsg_level = SOL_SOCKET;
    part->cmsg_type = SCM_RIGHTS;
    part->cmsg_len = CMSG_LEN(length);
    std::memcpy(CMSG_DATA(part), descriptors.data(), length);
  }
  return ::sendmsg(socket, &header, MSG_NOSIGNAL | MSG_DONTWAIT) ==
         static_cast<ssize_t>(sizeof(copy));
}

std::optional<ReceivedMessage> Receive(int socket) {
  ReceivedMessage received{};
  iovec data{&received.message, sizeof(received.message)};
  Ancillary ancillary;
  msghdr header{};
  header.msg_iov = &data;
  header.msg_iovlen = 1;
  header.msg_control = ancillary.bytes.data();
  header.msg_controllen = ancillary.bytes.size();
  const ssize_t got = ::recvmsg(socket, &header, MSG_CMSG_CLOEXEC);
  if (got < 0 && (errno == EAGAIN || errno == EINTR)) {
    return std::nullopt;
  }
  TakeDescriptors(header, received.descriptors);
  const bool is_whole = got == static_cast<ssize_t>(sizeof(received.message)) &&
                        (header.msg_flags & (MSG_TRUNC | MSG_CTRUNC)) == 0;
  if (!is_whole) {
    throw std::system_error(got < 0 ? errno : EPIPE, std::generic_category(), "control socket");
  }
  return received;
}

}  // namespace quillon::webapid
