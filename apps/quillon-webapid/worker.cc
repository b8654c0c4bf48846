#include "worker.h"

#include <poll.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <exception>
#include <memory>
#include <string_view>
#include <system_error>

#include <json/value.h>

#include <vela/api_runner.h>
#include <vela/process.h>

#include "envelope.h"

namespace quillon::webapid {

namespace {

constexpr int kIdleMilliseconds = 1000;
constexpr long kLargestProcess = 512L * 1024;  // kilobytes

struct Method {
  std::string_view api;
  std::string_view method;
};
constexpr std::array kForMonitors = {Method{"VELA.Core.System.Utilization", "get"},
                                     Method{"VELA.Core.Web.TARN", "get"},
                                     Method{"Quillon.MailServer.User", "list"},
                                     Method{"Quillon.MailServer.User", "names"},
                                     Method{"Quillon.MailServer.User", "details"},
                                     Method{"Quillon.MailServer.Group", "list"},
                                     Method{"Quillon.MailServer.Group", "share_quota"},
                                     Method{"Quillon.MailServer.Privilege", "list"},
                                     Method{"Quillon.MailServer.NoOwner", "list"},
                                     Method{"Quillon.MailServer.NoOwner", "status"}};

struct Outcome {
  int status = 0;
  std::string text;
};

Outcome Refuse(int status, const char* message) { return {status, FailureText(status, message)}; }

bool IsCall(const Json::Value& request) {
  return request["api"].isString() && request["version"].isInt() && request["method"].isString();
}

// Puts the uploads where a handler finds them. False when there is no room for them.
bool AddUploads(const std::vector<std::string>& parts, Json::Value& params) {
  if (parts.size() < 2) {
    return true;
  }
  if (!params.isNull() && !params.isObject()) {
    return false;
  }
  for (std::size_t i = 1; i + 1 < parts.size(); i += 2) {
    params[parts[i]] = parts[i + 1];
  }
  return true;
}

Outcome Run(const Frame& frame) {
  Json::Value document;
  if (frame.parts.empty() || !ParseObject(frame.parts.front(), document)) {
    return Refuse(400, "the body is not a request object");
  }
  const Json::Value& request = document;
  if (!IsCall(request)) {
    return Refuse(400, "\"api\", \"version\" and \"method\" are needed");
  }
  const std::string api = request["api"].asString();
  const std::string method = request["method"].asString();
  const Role role = frame.code == kAdmin ? kAdmin : kMonitor;
  if (!MayCall(role, api, method)) {
    return Refuse(403, "not allowed with this account");
  }
  Json::Value params = request["params"];
  if (!AddUploads(frame.parts, params)) {
    return Refuse(400, "an upload needs \"params\" to be an object");
  }
  Json::Value response;
  VELA::APIRunner::Exec(response, api.c_str(), request["version"].asInt(), method.c_str(), params,
                        role == kAdmin ? "admin" : "monitor");
  return {200, ToText(response)};
}

bool IsTooLarge() {
  rusage usage{};
  return ::getrusage(RUSAGE_SELF, &usage) == 0 && usage.ru_maxrss > kLargestProcess;
}

std::string EncodeAnswer(Frame answer, bool is_last) {
  const std::uint32_t mark = is_last ? kLastAnswer : 0;
  answer.code |= mark;
  try {
    return Encode(answer);
  } catch (const FrameError&) {
    answer.code = 500 | mark;
    answer.parts = {FailureText(500, "the answer is too large")};
    return Encode(answer);
  }
}

void Send(int socket, std::string_view bytes) {
  while (!bytes.empty()) {
    const ssize_t sent = ::send(socket, bytes.data(), bytes.size(), MSG_NOSIGNAL);
    if (sent < 0 && errno != EINTR) {
      throw std::system_error(errno, std::generic_category(), "send");
    }
    bytes.remove_prefix(static_cast<std::size_t>(std::max<ssize_t>(sent, 0)));
  }
}

struct Awaited {
  bool has_input;
  bool has_signal;
};

Awaited Wait(int socket, int signals) {
  std::array<pollfd, 2> waiting = {pollfd{socket, POLLIN, 0}, pollfd{signals, POLLIN, 0}};
  if (::poll(waiting.data(), waiting.size(), kIdleMilliseconds) <= 0) {
    return {false, false};
  }
  return {waiting[0].revents != 0, waiting[1].revents != 0};
}

// False at the end of the stream.
bool Receive(int socket, FrameReader& reader) {
  std::array<char, 65536> piece;  // NOLINT(cppcoreguidelines-pro-type-member-init): filled by recv
  const ssize_t got = ::recv(socket, piece.data(), piece.size(), 0);
  if (got < 0 && errno != EINTR) {
    throw std::system_error(errno, std::generic_category(), "recv");
  }
  reader.Append({piece.data(), static_cast<std::size_t>(std::max<ssize_t>(got, 0))});
  return got != 0;
}

}  // namespace

bool MayCall(Role role, const std::string& api, const std::string& method) {
  return role == kAdmin ||
         std::any_of(kForMonitors.begin(), kForMonitors.end(), [&](const Method& allowed) {
           return allowed.api == api && allowed.method == method;
         });
}

Frame Answer(const Frame& request) {
  Outcome outcome;
  try {
    VELA::EndChildAfter([&] { outcome = Run(request); });
  } catch (const std::exception& error) {
    outcome = {500, FailureText(500, error.what())};
  }
  return {request.index,
          request.generation,
          static_cast<std::uint32_t>(outcome.status),
          {std::move(outcome.text)}};
}

void Serve(int socket, int signals, void (*between)(bool has_signal)) {
  FrameReader reader;
  while (true) {
    const Awaited awaited = Wait(socket, signals);
    between(awaited.has_signal);
    if (!awaited.has_input) {
      continue;
    }
    if (!Receive(socket, reader)) {
      return;
    }
    while (const auto request = reader.Next()) {
      const Frame answer = Answer(*request);
      const bool is_last = IsTooLarge();
      Send(socket, EncodeAnswer(answer, is_last));
      if (is_last) {
        return;
      }
    }
  }
}

}  // namespace quillon::webapid
