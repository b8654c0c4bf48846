// The front: all that talks to the network, without any right on this host.
#include <fcntl.h>
#include <sys/epoll.h>
#include <sys/resource.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <exception>
#include <memory>
#include <stdexcept>
#include <system_error>
#include <utility>
#include <vector>

#include <quillon/platform/configuration.h>
#include <velamailserver/maillog.h>

#include "confinement.h"
#include "control.h"
#include "descriptors.h"
#include "http_front.h"
#include "login_api.h"
#include "refusal_log.h"
#include "server_certificate.h"
#include "settings.h"
#include "worker_pool.h"

namespace {

using namespace quillon::webapid;
using quillon::platform::FileDescriptor;
using Clock = std::chrono::steady_clock;

constexpr char kSourceFile[] = "apps/quillon-webapid/front";
constexpr int kEndedLine = 23;
constexpr int kNotReloadedLine = 29;

constexpr int kMillisecondsPerRound = 1000;
// Less than the supervisor's patience, which has to end within 10 seconds.
constexpr std::chrono::seconds kLongestStop{8};

void Require(int result, const char* what) {
  if (result != 0) {
    throw std::system_error(errno, std::generic_category(), what);
  }
}

void AllowDescriptors(int connections) {
  rlimit limit{};
  Require(::getrlimit(RLIMIT_NOFILE, &limit), "getrlimit");
  const rlim_t wanted = 2 * static_cast<rlim_t>(connections) + 256;
  if (limit.rlim_cur < wanted) {
    limit.rlim_cur = wanted;
    limit.rlim_max = std::max(limit.rlim_max, wanted);
    Require(::setrlimit(RLIMIT_NOFILE, &limit), "setrlimit");
  }
}

// The mail log's file is root's: the supervisor has opened it, for this process's standard error.
void UseLog(const FrontSettings& settings, const std::vector<FileDescriptor>& descriptors) {
  if (settings.has_log) {
    Require(::dup2(descriptors.at(1).Get(), STDERR_FILENO) == STDERR_FILENO ? 0 : -1, "log");
  }
  quillon::platform::Configuration configuration;
  configuration.web = settings.web;
  configuration.log.target = settings.has_log ? "stderr" : "syslog";
  quillon::platform::UseConfiguration(std::move(configuration));
}

class Front {
 public:
  explicit Front(const FrontSettings& settings)
      : logins_(settings, refusals_),
        workers_(poller_,
                 [](std::uint32_t worker, std::uint32_t generation) {
                   Send(kSupervisorSocket, {ControlMessage::kReplaceWorker, worker, generation});
                 }),
        http_(settings, poller_, workers_, logins_, refusals_) {
    UseCertificate(settings);
    // The library that makes its hashes reads a file at the first of them.
    static_cast<void>(logins_.Find("Bearer none", Clock::now()));
    poller_.Add(kSupervisorSocket, EPOLLIN, [this](std::uint32_t) { HandleMessage(); });
  }

  void Listen(const FrontSettings& settings, std::vector<FileDescriptor> sockets) {
    auto socket = sockets.begin();
    if (settings.has_http) {
      http_.Listen(std::move(*socket++), false);
    }
    if (settings.has_https) {
      http_.Listen(std::move(*socket++), true);
    }
  }

  // Until it has been told to stop and has done so.
  void Run() {
    Send(kSupervisorSocket, {ControlMessage::kReady});
    while (!HasStopped()) {
      poller_.Wait(http_.Timeout(is_stopping_ ? 20 : kMillisecondsPerRound));
      const auto now = Clock::now();
      http_.Run(now);
      if (now - last_check_ >= std::chrono::milliseconds(kMillisecondsPerRound / 2)) {
        last_check_ = now;
        workers_.CheckDeadlines(now);
        refusals_.Report(now);
        Send(kSupervisorSocket, {ControlMessage::kAlive});
      }
    }
  }

 private:
  bool HasStopped() const { return is_stopping_ && (http_.IsIdle() || Clock::now() >= stop_at_); }

  void UseCertificate(const FrontSettings& settings) {
    if (settings.has_https) {
      certificate_.Use(settings.certificate, settings.private_key.Get());
    }
  }

  void HandleMessage() {
    auto received = Receive(kSupervisorSocket);
    if (!received) {
      return;
    }
    switch (received->message.kind) {
      case ControlMessage::kWorker:
        workers_.Use(received->message.worker, received->message.generation,
                     std::move(received->descriptors.at(0)));
        break;
      case ControlMessage::kSettings:
        Reload(received->descriptors);
        break;
      default:
        is_stopping_ = true;
        stop_at_ = Clock::now() + kLongestStop;
        http_.BeginToStop();
    }
  }

  void Reload(const std::vector<FileDescriptor>& descriptors) {
    try {
      const FrontSettings settings = ReadSettings(descriptors.at(0).Get());
      UseLog(settings, descriptors);
      UseCertificate(settings);
      logins_.UseAccounts(settings);
      http_.UseSettings(settings);
    } catch (const std::exception& error) {
      maillog(LOG_ERR, "%s:%d not everything was reloaded: %s", kSourceFile, kNotReloadedLine,
              error.what());
    }
  }

  Poller poller_;
  RefusalLog refusals_;
  LoginApi logins_;
  WorkerPool workers_;
  ServerCertificate certificate_;
  HttpFront http_;
  bool is_stopping_ = false;
  Clock::time_point stop_at_;
  Clock::time_point last_check_;
};

// The settings are gone, and wiped, when it begins to serve.
std::unique_ptr<Front> MakeFront() {
  // Blocks until it is there.
  auto first = Receive(kSupervisorSocket);
  if (!first || first->message.kind != ControlMessage::kSettings) {
    throw std::runtime_error("the supervisor does not begin with the settings");
  }
  std::vector<FileDescriptor>& descriptors = first->descriptors;
  const FrontSettings settings = ReadSettings(descriptors.at(0).Get());
  AllowDescriptors(settings.web.max_connections);
  UseLog(settings, descriptors);
  DropRights(settings.uid, settings.gid);
  Require(::fcntl(kSupervisorSocket, F_SETFL, O_NONBLOCK), "control socket");
  auto front = std::make_unique<Front>(settings);
  descriptors.erase(descriptors.begin(), descriptors.begin() + (settings.has_log ? 2 : 1));
  front->Listen(settings, std::move(descriptors));
  return front;
}

}  // namespace

int main() {
  static_cast<void>(std::signal(SIGPIPE, SIG_IGN));
  try {
    const std::unique_ptr<Front> front = MakeFront();
    FilterSystemCalls();
    front->Run();
  } catch (const std::exception& error) {
    maillog(LOG_ERR, "%s:%d %s", kSourceFile, kEndedLine, error.what());
    return EXIT_FAILURE;
  }
  return EXIT_SUCCESS;
}
