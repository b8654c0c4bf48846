// The front, from the bytes that a client sends to the frame that a worker gets. $TOKEN in an input
// becomes the token of an administrator. Each input is sent at once and in pieces, which must not
// make a difference.
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <csignal>
#include <cstring>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "envelope.h"
#include "frame.h"
#include "fuzz/known_account.h"
#include "fuzz/platform.h"
#include "http_front.h"
#include "login_api.h"

namespace quillon::fuzz {
namespace {

using platform::FileDescriptor;
using webapid::Frame;
using Clock = std::chrono::steady_clock;

// Small, so that an input reaches them.
constexpr std::size_t kMostBody = 2048;
constexpr int kMostHeader = 1024;
constexpr std::size_t kMostParts = 17;
constexpr char kDone[] = R"({"success":true})";

webapid::FrontSettings Settings() {
  const platform::WebAccount account = KnownAccount();
  webapid::FrontSettings settings;
  settings.web = QuietConfiguration().web;
  settings.web.max_body = kMostBody;
  settings.web.max_header = kMostHeader;
  settings.web.session_lifetime = 86400;
  settings.accounts =
      platform::Secret(account.name + ":admin:SCRAM-SHA-256:4096:" + account.salt + ":" +
                       account.stored_key.Get() + ":" + account.server_key.Get() + "\n");
  return settings;
}

std::pair<FileDescriptor, FileDescriptor> SocketPair() {
  std::array<int, 2> ends{};
  Require(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends.data()) == 0, "a socket");
  return {FileDescriptor(ends[0]), FileDescriptor(ends[1])};
}

Json::Value DataOf(const webapid::Reply& reply) {
  Json::Value envelope;
  Require(webapid::ParseObject(reply.text, envelope) && reply.status == 200, "a login succeeds");
  return envelope["data"];
}

// The client's side of a login.
class ScramClient {
 public:
  ScramClient() {
    Require(::gsasl_init(&library_) == GSASL_OK &&
                ::gsasl_client_start(library_, "SCRAM-SHA-256", &session_) == GSASL_OK,
            "there is a client");
    std::string hex;
    for (const char c : KnownSaltedPassword()) {
      constexpr char kDigits[] = "0123456789abcdef";
      hex += {kDigits[c >> 4U], kDigits[c & 0xf]};
    }
    ::gsasl_property_set(session_, GSASL_AUTHID, KnownAccount().name.c_str());
    ::gsasl_property_set(session_, GSASL_SCRAM_SALTED_PASSWORD, hex.c_str());
  }
  ScramClient(const ScramClient&) = delete;
  ScramClient& operator=(const ScramClient&) = delete;
  ~ScramClient() {
    ::gsasl_finish(session_);
    ::gsasl_done(library_);
  }

  std::string Step(const std::string& message) {
    char* answer = nullptr;
    ::gsasl_step64(session_, message.c_str(), &answer);
    const std::unique_ptr<char, decltype(&::gsasl_free)> owner(answer, ::gsasl_free);
    return answer == nullptr ? "" : answer;
  }

 private:
  Gsasl* library_ = nullptr;
  Gsasl_session* session_ = nullptr;
};

// What came of an input.
struct Outcome {
  std::vector<Frame> frames;  // that the worker got
  std::string answers;        // the bytes that the client got
};

class Front {
 public:
  Front() {
    auto [ours, theirs] = SocketPair();
    workers_.Use(0, 1, std::move(ours));
    worker_ = std::move(theirs);
    // Without a name: the kernel gives it one.
    FileDescriptor listener(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    address_.sun_family = AF_UNIX;
    Require(::bind(listener.Get(), AsAddress(), sizeof(sa_family_t)) == 0, "a name");
    address_length_ = sizeof(address_);
    Require(::getsockname(listener.Get(), AsAddress(), &address_length_) == 0 &&
                ::listen(listener.Get(), 8) == 0,
            "a socket that listens");
    http_.Listen(std::move(listener), false);
  }

  // Logs in anew when an input has logged out.
  const std::string& Token() {
    if (token_.empty() || !logins_.Find(("Bearer " + token_).c_str(), Clock::now())) {
      token_ = LogIn();
    }
    return token_;
  }

  Outcome Take(std::string_view bytes, std::size_t piece) {
    outcome_ = {};
    client_ = FileDescriptor(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    Require(::connect(client_.Get(), AsAddress(), address_length_) == 0, "a connection");
    while (!bytes.empty()) {
      const std::string_view now = bytes.substr(0, piece);
      bytes.remove_prefix(now.size());
      // Who was refused may find the connection closed.
      static_cast<void>(::send(client_.Get(), now.data(), now.size(), MSG_NOSIGNAL));
      RunUntilQuiet();
    }
    client_ = FileDescriptor();
    RunUntilQuiet();
    Require(http_.IsIdle(), "nothing is left of a client that is gone");
    return std::move(outcome_);
  }

 private:
  sockaddr* AsAddress() { return reinterpret_cast<sockaddr*>(&address_); }

  std::string LogIn() {
    ScramClient client;
    Json::Value call;
    call["api"] = webapid::kLoginApi;
    call["version"] = 1;
    call["method"] = "start";
    call["params"]["message"] = client.Step("");
    const Json::Value challenge = DataOf(logins_.Run(call, "192.0.2.1", nullptr, Clock::now()));
    call["method"] = "finish";
    call["params"]["login"] = challenge["login"];
    call["params"]["message"] = client.Step(challenge["message"].asString());
    return DataOf(logins_.Run(call, "192.0.2.1", nullptr, Clock::now()))["token"].asString();
  }

  void RunUntilQuiet() {
    for (int quiet = 0; quiet < 3; ++quiet) {
      poller_.Wait(0);
      http_.Run(Clock::now());
      if (AnswerCalls() || ReadAnswers() || http_.Timeout(1) == 0) {
        quiet = -1;
      }
    }
  }

  // The worker.
  bool AnswerCalls() {
    std::array<char, 65536>
        piece;  // NOLINT(cppcoreguidelines-pro-type-member-init): filled by recv
    const ssize_t got = ::recv(worker_.Get(), piece.data(), piece.size(), MSG_DONTWAIT);
    if (got <= 0) {
      return false;
    }
    requests_.Append({piece.data(), static_cast<std::size_t>(got)});
    while (auto frame = requests_.Next()) {
      const std::string answer = webapid::Encode({frame->index, frame->generation, 200, {kDone}});
      Require(::send(worker_.Get(), answer.data(), answer.size(), MSG_NOSIGNAL) ==
                  static_cast<ssize_t>(answer.size()),
              "the front reads what workers answer");
      outcome_.frames.push_back(std::move(*frame));
    }
    return true;
  }

  bool ReadAnswers() {
    std::array<char, 4096> piece;  // NOLINT(cppcoreguidelines-pro-type-member-init): filled by recv
    const ssize_t got =
        client_.IsOpen() ? ::recv(client_.Get(), piece.data(), piece.size(), MSG_DONTWAIT) : 0;
    if (got > 0) {
      outcome_.answers.append(piece.data(), static_cast<std::size_t>(got));
    }
    return got > 0;
  }

  webapid::FrontSettings settings_ = Settings();
  webapid::RefusalLog refusals_;
  webapid::Poller poller_;
  webapid::LoginApi logins_{settings_, refusals_};
  webapid::WorkerPool workers_{poller_, [](std::uint32_t, std::uint32_t) {
                                 Require(false, "an honest worker is not replaced");
                               }};
  webapid::HttpFront http_{settings_, poller_, workers_, logins_, refusals_};
  sockaddr_un address_{};
  socklen_t address_length_ = 0;
  FileDescriptor worker_;
  FileDescriptor client_;
  webapid::FrameReader requests_;
  Outcome outcome_;
  std::string token_;
};

// Whether a body follows a head that announces one: an answer to HEAD has none.
bool HasBody(std::string_view rest) { return !rest.empty() && !rest.starts_with("HTTP/1.1 "); }

void RequireEnvelope(std::string_view body) {
  Json::Value envelope;
  Require(webapid::ParseObject(std::string(body), envelope) && envelope["success"].isBool(),
          "an answer is an envelope");
  Require(envelope["success"].asBool() || envelope["error"]["message"].isString(),
          "a refusal says why");
}

// The statuses of the answers, of which refusals are all the same: it may depend on the pieces
// which reason comes first.
std::vector<int> Statuses(std::string_view answers) {
  static const std::set<int> known = {100, 200, 400, 401, 404, 405, 411, 413,
                                      414, 415, 417, 429, 431, 501, 505};
  std::vector<int> statuses;
  while (!answers.empty()) {
    constexpr std::string_view kBegin = "HTTP/1.1 ";
    Require(answers.starts_with(kBegin), "an answer begins where the last one ended");
    const std::string head(Cut(answers, "\r\n\r\n"));
    const int status = std::atoi(head.c_str() + kBegin.size());
    Require(known.contains(status), "the status is one of those that requests can bring about");
    const auto length_at = head.find("Content-Length: ");
    if (length_at != std::string::npos && HasBody(answers)) {
      const auto length =
          std::strtoull(head.c_str() + length_at + std::strlen("Content-Length: "), nullptr, 10);
      Require(length <= answers.size(), "an answer is whole");
      if (head.find("Content-Type: application/json") != std::string::npos) {
        RequireEnvelope(answers.substr(0, length));
      }
      answers.remove_prefix(length);
    }
    if (status != 100) {
      statuses.push_back(status < 400 ? status : 400);
    }
  }
  return statuses;
}

void RequireFrames(const std::vector<Frame>& frames, bool has_token) {
  Require(frames.empty() || has_token, "without a token nothing gets to a worker");
  for (const Frame& frame : frames) {
    Require(frame.code == webapid::kAdmin, "the role is that of the token's account");
    Require(frame.parts.size() % 2 == 1 && frame.parts.size() <= kMostParts,
            "a request has its object and pairs of a key and a content");
    std::size_t size = 0;
    for (const std::string& part : frame.parts) {
      size += part.size();
    }
    Require(size <= kMostBody, "a body is within its bounds");
  }
}

bool IsSame(const Frame& a, const Frame& b) { return a.parts == b.parts; }

void Compare(const Outcome& whole, const Outcome& in_pieces) {
  const std::vector<int> statuses = Statuses(whole.answers);
  const std::vector<int> statuses_in_pieces = Statuses(in_pieces.answers);
  // After a client that asks to go on and then sends no body, but something else at once, the HTTP
  // library goes on only when the client does.
  const bool has_asked = whole.answers.find(" 100 Continue") != std::string::npos;
  Require(has_asked || statuses == statuses_in_pieces,
          "a client gets the same whatever the pieces");
  Require(has_asked || std::equal(whole.frames.begin(), whole.frames.end(),
                                  in_pieces.frames.begin(), in_pieces.frames.end(), IsSame),
          "a worker gets the same whatever the pieces");
}

Front& TheFront() {
  static Front& front = *new Front;  // never ends
  return front;
}

void Prepare() {
  std::signal(SIGPIPE, SIG_IGN);
  platform::UseConfiguration(QuietConfiguration());
}

}  // namespace
}  // namespace quillon::fuzz

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace quillon::fuzz;
  constexpr std::size_t kPieces = 12;
  [[maybe_unused]] static const bool is_prepared = (Prepare(), true);
  const std::string_view input = TextOf(data, size);
  const bool has_token = input.find("$TOKEN") != std::string_view::npos;
  Front& front = TheFront();
  const auto bytes = [&] { return Replaced(std::string(input), "$TOKEN", front.Token()); };

  const Outcome whole = front.Take(bytes(), size + 4096);
  RequireFrames(whole.frames, has_token);
  const Outcome in_pieces = front.Take(bytes(), size / kPieces + 1);
  RequireFrames(in_pieces.frames, has_token);
  Compare(whole, in_pieces);
  return 0;
}
