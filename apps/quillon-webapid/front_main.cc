// The front: all that talks to the network, without any right on this host.
#include <fcntl.h>
#include <grp.h>
#include <sys/epoll.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <exception>
#include <optional>
#include <stdexcept>
#include <system_error>
#include <utility>

#include <quillon/platform/configuration.h>
#include <velamailserver/maillog.h>

#include "control.h"
#include "descriptors.h"
#include "http_front.h"
#include "login_api.h"
#include "server_certificate.h"
#include "settings.h"
#include "worker_pool.h"

namespace {

using namespace quillon::webapid;
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

void DropPrivileges(uid_t uid, gid_t gid) {
  if (uid == 0 || gid == 0) {
    throw std::runtime_error("the front does not run as root");
  }
  const rlimit no_core{0, 0};
  Require(::setrlimit(RLIMIT_CORE, &no_core), "setrlimit");
  Require(::setgroups(0, nullptr), "setgroups");
  Require(::setresgid(gid, gid, gid), "setresgid");
  Require(::setresuid(uid, uid, uid), "setresuid");
  Require(::prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0), "no new privileges");
  Require(::prctl(PR_SET_DUMPABLE, 0, 0, 0, 0), "not dumpable");
  if (::setresuid(0, 0, 0) == 0) {
    throw std::runtime_error("the front could become root again");
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

// The mail log's file is root's: the supervisor has opened it as this process's standard error.
void UseLog(const FrontSettings& settings) {
  quillon::platform::Configuration configuration;
  configuration.web = settings.web;
  configuration.log.target = settings.log_target;
  quillon::platform::UseConfiguration(std::move(configuration));
}

class Front {
 public:
  explicit Front(const FrontSettings& settings)
      : logins_(settings),
        workers_(poller_,
                 [](std::uint32_t worker, std::uint32_t generation) {
                   Send(kSupervisorSocket, {ControlMessage::kReplaceWorker, worker, generation});
                 }),
        http_(settings, poller_, workers_, logins_) {
    UseCertificate(settings);
    poller_.Add(kSupervisorSocket, EPOLLIN, [this](std::uint32_t) { HandleMessage(); });
  }

  void Listen(const FrontSettings& settings,
              std::vector<quillon::platform::FileDescriptor> sockets) {
    auto socket = sockets.begin() + 1;  // the first one holds the settings
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
        Reload(received->descriptors.at(0).Get());
        break;
      default:
        is_stopping_ = true;
        stop_at_ = Clock::now() + kLongestStop;
        http_.BeginToStop();
    }
  }

  void Reload(int file) {
    try {
      const FrontSettings settings = ReadSettings(file);
      UseCertificate(settings);
      logins_.UseAccounts(settings);
      http_.UseSettings(settings);
    } catch (const std::exception& error) {
      maillog(LOG_ERR, "%s:%d not everything was reloaded: %s", kSourceFile, kNotReloadedLine,
              error.what());
    }
  }

  Poller poller_;
  LoginApi logins_;
  WorkerPool workers_;
  ServerCertificate certificate_;
  HttpFront http_;
  bool is_stopping_ = false;
  Clock::time_point stop_at_;
  Clock::time_point last_check_;
};

void Serve() {
  // Blocks until it is there.
  auto first = Receive(kSupervisorSocket);
  if (!first || first->message.kind != ControlMessage::kSettings) {
    throw std::runtime_error("the supervisor does not begin with the settings");
  }
  const FrontSettings settings = ReadSettings(first->descriptors.at(0).Get());
  AllowDescriptors(settings.web.max_connections);
  UseLog(settings);
  DropPrivileges(settings.uid, settings.gid);
  Require(::fcntl(kSupervisorSocket, F_SETFL, O_NONBLOCK), "control socket");
  Front front(settings);
  front.Listen(settings, std::move(first->descriptors));
  front.Run();
}

}  // namespace

int main() {
  std::signal(SIGPIPE, SIG_IGN);
  try {
    Serve();
  } catch (const std::exception& error) {
    maillog(LOG_ERR, "%s:%d %s", kSourceFile, kEndedLine, error.what());
    return EXIT_FAILURE;
  }
  return EXIT_SUCCESS;
}
