// One exchange with another host, whose side of the connection is the input: through libcurl, down
// to the socket.
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <array>
#include <memory>
#include <string>
#include <vector>

#include <vela/cred.h>

#include "cred/answer_shape.h"
#include "cred/records.h"
#include "fuzz/platform.h"

namespace {

using quillon::platform::FileDescriptor;

struct Network {
  std::string answer;
  std::vector<FileDescriptor> hosts;  // the hosts' ends of the connections
};

Network network;

}  // namespace

// In the place of the C library's, for libcurl and the platform: a connection is one to a host that
// has said everything already.
extern "C" int socket(int domain, int type, int protocol) noexcept {
  if (domain != AF_INET) {
    return static_cast<int>(::syscall(SYS_socket, domain, type, protocol));
  }
  std::array<int, 2> ends{};
  if (::socketpair(AF_UNIX, type, 0, ends.data()) != 0) {
    return -1;
  }
  network.hosts.emplace_back(ends[1]);
  quillon::fuzz::Require(::send(ends[1], network.answer.data(), network.answer.size(),
                                MSG_NOSIGNAL) == static_cast<ssize_t>(network.answer.size()),
                         "an answer fits into the socket");
  ::shutdown(ends[1], SHUT_WR);
  return ends[0];
}

extern "C" int connect(int socket, const sockaddr* address, socklen_t length) {
  return address->sa_family == AF_INET
             ? 0
             : static_cast<int>(::syscall(SYS_connect, socket, address, length));
}

namespace quillon::fuzz {
namespace {

constexpr std::size_t kMostAnswer = 1024;  // as small as may be configured

void Prepare() {
  platform::Configuration configuration = QuietConfiguration();
  configuration.cluster.max_answer = kMostAnswer;
  platform::UseConfiguration(std::move(configuration));
}

std::size_t Count(const std::string& text, const std::string& piece) {
  std::size_t count = 0;
  for (std::size_t at = text.find(piece); at != std::string::npos; at = text.find(piece, at + 1)) {
    ++count;
  }
  return count;
}

std::string Received() {
  std::string all;
  for (const FileDescriptor& host : network.hosts) {
    std::array<char, 4096> piece{};
    ssize_t got = 0;
    while ((got = ::recv(host.Get(), piece.data(), piece.size(), MSG_DONTWAIT)) > 0) {
      all.append(piece.data(), static_cast<std::size_t>(got));
    }
  }
  return all;
}

std::string Exchange() {
  _tag_vela_cred_ cred;
  cred.host = "127.0.0.1";
  cred.protocol = "http";
  cred.port = 5000;
  _tag_vela_cred_sess_ session;
  session.token.Set("the-token");
  VELA::CredRequestMgr queue;
  const int index = queue.AddCredRequest(
      VELA::CredRequest::CreateWebAPIRequest(&cred, &session, "API", 1, "get", Json::Value()));
  Require(index >= 0, "the request is taken");
  queue.Run();
  return queue.GetResponse(index);
}

}  // namespace
}  // namespace quillon::fuzz

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace quillon::fuzz;
  [[maybe_unused]] static const bool is_prepared = (Prepare(), true);
  network.answer = TextOf(data, size);
  network.hosts.clear();

  const std::string body = Exchange();
  Require(body.size() <= kMostAnswer, "an answer is within its bounds");
  Require(quillon::platform::ObjectToShape(body) == nullptr, "an answer is one to parse");

  const std::string request = Received();
  Require(Count(request, "POST /webapi HTTP/1.1\r\n") == 1 && Count(request, " HTTP/1.1\r\n") == 1,
          "one call is one request, and to the place that was asked for");
  Require(Count(request, "Authorization: Bearer the-token\r\n") == 1, "the token goes along");
  return 0;
}
