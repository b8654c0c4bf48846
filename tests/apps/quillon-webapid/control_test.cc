#include "control.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/uio.h>
#include <unistd.h>

#include <array>
#include <cstring>
#include <filesystem>
#include <iterator>
#include <system_error>
#include <vector>

#include <gtest/gtest.h>

namespace quillon::webapid {
namespace {

std::ptrdiff_t OpenDescriptors() {
  return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {});
}

TEST(ControlTest, CarriesMessagesWithDescriptors) {
  const ControlSockets sockets = MakeControlSockets();
  std::array<int, 2> pipe{};
  ASSERT_EQ(::pipe2(pipe.data(), O_CLOEXEC), 0);
  const platform::FileDescriptor read_end(pipe[0]);
  const platform::FileDescriptor write_end(pipe[1]);
  ASSERT_TRUE(
      Send(sockets.ours.Get(), {ControlMessage::kWorker, 3, 4}, {read_end.Get(), write_end.Get()}));
  ASSERT_TRUE(Send(sockets.ours.Get(), {ControlMessage::kAlive}));

  const auto first = Receive(sockets.theirs.Get());
  ASSERT_TRUE(first);
  EXPECT_EQ(first->message.kind, ControlMessage::kWorker);
  EXPECT_EQ(first->message.worker, 3U);
  EXPECT_EQ(first->message.generation, 4U);
  ASSERT_EQ(first->descriptors.size(), 2U);
  ASSERT_EQ(::write(first->descriptors[1].Get(), "x", 1), 1);
  char byte = 0;
  EXPECT_EQ(::read(read_end.Get(), &byte, 1), 1);
  EXPECT_EQ(byte, 'x');
  EXPECT_NE(::fcntl(first->descriptors[0].Get(), F_GETFD) & FD_CLOEXEC, 0);

  const auto second = Receive(sockets.theirs.Get());
  ASSERT_TRUE(second);
  EXPECT_EQ(second->message.kind, ControlMessage::kAlive);
  EXPECT_TRUE(second->descriptors.empty());
}

TEST(ControlTest, DoesNotWaitWhenItsSocketDoesNot) {
  const ControlSockets sockets = MakeControlSockets();
  ASSERT_EQ(::fcntl(sockets.ours.Get(), F_SETFL, O_NONBLOCK), 0);
  EXPECT_FALSE(Receive(sockets.ours.Get()));
}

TEST(ControlTest, NoticesThatTheOtherSideIsGone) {
  ControlSockets sockets = MakeControlSockets();
  sockets.theirs = platform::FileDescriptor();
  EXPECT_FALSE(Send(sockets.ours.Get(), {ControlMessage::kStop}));
  EXPECT_THROW(Receive(sockets.ours.Get()), std::system_error);
}

TEST(ControlTest, NoticesThatTheOtherSideDoesNotRead) {
  const ControlSockets sockets = MakeControlSockets();
  int sent = 0;
  while (sent < 100000 && Send(sockets.ours.Get(), {ControlMessage::kAlive})) {
    ++sent;
  }
  EXPECT_GT(sent, 1);
  EXPECT_LT(sent, 100000);
}

TEST(ControlTest, RefusesARecordOfAnotherSize) {
  const ControlSockets sockets = MakeControlSockets();
  const std::array<char, 2 * sizeof(ControlMessage)> bytes{};
  for (const std::size_t size : {sizeof(ControlMessage) - 1, sizeof(ControlMessage) + 1}) {
    ASSERT_EQ(::send(sockets.ours.Get(), bytes.data(), size, 0), static_cast<ssize_t>(size));
    EXPECT_THROW(Receive(sockets.theirs.Get()), std::system_error) << size;
  }
}

TEST(ControlTest, RefusesMoreDescriptorsThanItTakesAndKeepsNone) {
  const ControlSockets sockets = MakeControlSockets();
  constexpr std::size_t kMany = 16;
  std::array<int, kMany> descriptors{};
  descriptors.fill(sockets.ours.Get());
  ControlMessage message{ControlMessage::kSettings};
  iovec data{&message, sizeof(message)};
  alignas(cmsghdr) std::array<char, CMSG_SPACE(sizeof(descriptors))> ancillary{};
  msghdr header{};
  header.msg_iov = &data;
  header.msg_iovlen = 1;
  header.msg_control = ancillary.data();
  header.msg_controllen = ancillary.size();
  cmsghdr* const part = CMSG_FIRSTHDR(&header);
  part->cmsg_level = SOL_SOCKET;
  part->cmsg_type = SCM_RIGHTS;
  part->cmsg_len = CMSG_LEN(sizeof(descriptors));
  std::memcpy(CMSG_DATA(part), descriptors.data(), sizeof(descriptors));
  ASSERT_EQ(::sendmsg(sockets.ours.Get(), &header, 0), static_cast<ssize_t>(sizeof(message)));

  const auto before = OpenDescriptors();
  EXPECT_THROW(Receive(sockets.theirs.Get()), std::system_error);
  EXPECT_EQ(OpenDescriptors(), before);
}

}  // namespace
}  // namespace quillon::webapid
