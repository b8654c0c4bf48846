#include "supervisor.h"

#include <fcntl.h>
#include <poll.h>
#include <pwd.h>
#include <sys/prctl.h>
#include <sys/signalfd.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <exception>
#include <filesystem>
#include <stdexcept>
#include <system_error>
#include <utility>

#include <quillon/platform/web_accounts.h>
#include <velamailserver/maillog.h>

#include "certificate.h"
#include "control.h"
#include "descriptors.h"
#include "listen.h"
#include "notify.h"

namespace quillon::webapid {

namespace {

using platform::FileDescriptor;

constexpr char kSourceFile[] = "apps/quillon-webapid/supervisor";
constexpr int kStartedLine = 31;
constexpr int kEndedLine = 37;
constexpr int kReloadedLine = 43;
constexpr int kNotReloadedLine = 47;
constexpr int kStoppedLine = 53;
constexpr int kHungLine = 59;
constexpr int kNotStartedLine = 61;

constexpr int kMillisecondsPerRound = 1000;
constexpr std::chrono::seconds kLongestStop{9};
// A front that says nothing for this long hangs.
constexpr std::chrono::seconds kLongestSilence{30};
// What ends sooner than this is started again later and later.
constexpr std::chrono::seconds kShortLife{2};
constexpr std::chrono::milliseconds kFirstDelay{100};
constexpr std::chrono::milliseconds kLongestDelay{30000};

[[noreturn]] void Fail(const std::string& what) {
  throw std::system_error(errno, std::generic_category(), what);
}

// Never 0 or less, which would mean more than one process.
void Kill(pid_t pid, int signal) {
  if (pid > 0) {
    ::kill(pid, signal);
  }
}

std::shared_ptr<const platform::Configuration> Load(const std::string& file) {
  platform::UseConfiguration(!file.empty() ? platform::LoadConfiguration(file)
                             : ::access(platform::kDefaultConfigurationFile, F_OK) == 0
                                 ? platform::LoadConfiguration(platform::kDefaultConfigurationFile)
                                 : platform::Configuration());
  return platform::CurrentConfiguration();
}

std::string Sibling(const char* name) {
  return std::filesystem::read_symlink("/proc/self/exe").replace_filename(name);
}

// The front cannot open the log's file itself.
FileDescriptor OpenLog() {
  const auto log = platform::CurrentConfiguration()->log;
  if (log.target != "file") {
    return FileDescriptor();
  }
  FileDescriptor file(::open(
      log.file.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC | O_NOFOLLOW | O_NOCTTY, 0640));
  if (!file.IsOpen()) {
    Fail(log.file);
  }
  return file;
}

// Changes whenever the file does.
std::string StateOf(const std::string& path) {
  struct stat status {};
  if (::stat(path.c_str(), &status) != 0) {
    return "none";
  }
  return std::to_string(status.st_ino) + " " + std::to_string(status.st_size) + " " +
         std::to_string(status.st_mtim.tv_sec) + "." + std::to_string(status.st_mtim.tv_nsec) +
         " " + std::to_string(status.st_ctim.tv_sec) + "." + std::to_string(status.st_ctim.tv_nsec);
}

struct Program {
  std::string path;
  std::string argument;  // none when empty
  int socket;            // becomes `kSupervisorSocket`
  int standard_error;    // -1: this process's own
};

// In the child, between fork and exec: system calls only.
[[noreturn]] void Execute(const Program& program, char* const* arguments, const sigset_t& signals,
                          pid_t parent) {
  ::prctl(PR_SET_PDEATHSIG, SIGKILL);
  if (::getppid() != parent) {
    ::_exit(EXIT_FAILURE);
  }
  ::sigprocmask(SIG_SETMASK, &signals, nullptr);
  if (program.standard_error >= 0) {
    ::dup2(program.standard_error, STDERR_FILENO);
  }
  if (program.socket == kSupervisorSocket) {
    ::fcntl(program.socket, F_SETFD, 0);
  } else {
    ::dup2(program.socket, kSupervisorSocket);
  }
  ::execv(program.path.c_str(), arguments);
  ::_exit(127);
}

pid_t Start(const Program& program, const sigset_t& signals) {
  std::array<char*, 3> arguments = {const_cast<char*>(program.path.c_str()), nullptr, nullptr};
  if (!program.argument.empty()) {
    arguments[1] = const_cast<char*>(program.argument.c_str());
  }
  const pid_t parent = ::getpid();
  const pid_t pid = ::fork();
  if (pid < 0) {
    Fail("fork");
  }
  if (pid == 0) {
    Execute(program, arguments.data(), signals, parent);
  }
  return pid;
}

}  // namespace

Supervisor::Supervisor(std::string configuration_file)
    : configuration_file_(std::move(configuration_file)) {
  const auto configuration = Load(configuration_file_);
  const auto& web = configuration->web;
  if (web.http_port == 0 && web.https_port == 0) {
    throw std::runtime_error("web.http_port and web.https_port are both off");
  }
  sigset_t wanted;
  ::sigemptyset(&wanted);
  for (const int signal : {SIGTERM, SIGINT, SIGHUP, SIGCHLD}) {
    ::sigaddset(&wanted, signal);
  }
  ::sigprocmask(SIG_BLOCK, &wanted, &former_signals_);
  signals_ = FileDescriptor(::signalfd(-1, &wanted, SFD_CLOEXEC | SFD_NONBLOCK));
  if (web.http_port != 0) {
    http_ = Listen(web.address, web.http_port);
  }
  if (web.https_port != 0) {
    https_ = Listen(web.address, web.https_port);
  }
  workers_.resize(static_cast<std::size_t>(web.workers));
  static_cast<void>(LoadSettings());  // what is wrong with it is wrong with this start
}

Supervisor::~Supervisor() {
  Kill(front_.pid, SIGKILL);
  for (const Child& worker : workers_) {
    Kill(worker.pid, SIGKILL);
  }
  ::sigprocmask(SIG_SETMASK, &former_signals_, nullptr);
}

FrontSettings Supervisor::LoadSettings() const {
  const auto configuration = platform::CurrentConfiguration();
  FrontSettings settings;
  settings.web = configuration->web;
  settings.log_target = configuration->log.target == "syslog" ? "syslog" : "stderr";
  errno = 0;
  const passwd* const user = ::getpwnam(settings.web.user.c_str());
  if (user == nullptr || user->pw_uid == 0 || user->pw_gid == 0) {
    throw std::runtime_error("web.user: " + settings.web.user +
                             " is not the name of an account without rights");
  }
  settings.uid = user->pw_uid;
  settings.gid = user->pw_gid;
  settings.has_http = http_.IsOpen();
  settings.has_https = https_.IsOpen();
  if (settings.has_https) {
    CertificateTexts texts = LoadCertificate(settings.web);
    settings.certificate = std::move(texts.certificate);
    settings.private_key = std::move(texts.private_key);
  }
  settings.accounts = platform::ReadWebAccountsFile(settings.web.accounts_file);
  static_cast<void>(
      platform::ParseWebAccounts(settings.accounts.Get(), settings.web.accounts_file));
  return settings;
}

int Supervisor::Run() {
  last_notified_ = Clock::now();
  const auto watchdog = WatchdogInterval();
  while (!is_stopping_ || front_.pid > 0) {
    StartWhatIsDue();
    std::array<pollfd, 2> waiting = {pollfd{signals_.Get(), POLLIN, 0},
                                     pollfd{control_.Get(), POLLIN, 0}};
    ::poll(waiting.data(), waiting.size(), is_stopping_ ? 50 : kMillisecondsPerRound / 4);
    if (waiting[1].revents != 0) {
      HandleFront();
    }
    HandleSignals();
    CheckFront();
    ReloadChangedAccounts();
    if (watchdog.count() > 0 && is_ready_ && Clock::now() - last_notified_ >= watchdog) {
      last_notified_ = Clock::now();
      Notify("WATCHDOG=1");
    }
  }
  maillog(LOG_INFO, "%s:%d stopped", kSourceFile, kStoppedLine);
  return EXIT_SUCCESS;
}

void Supervisor::StartWhatIsDue() {
  if (is_stopping_) {
    return;
  }
  const auto now = Clock::now();
  try {
    if (front_.pid == 0 && front_.start_at <= now) {
      StartFront();
    }
    for (std::uint32_t i = 0; i < workers_.size(); ++i) {
      if (control_.IsOpen() && workers_[i].pid == 0 && workers_[i].start_at <= now) {
        StartWorker(i);
      }
    }
  } catch (const std::exception& error) {
    maillog(LOG_ERR, "%s:%d not started: %s", kSourceFile, kNotStartedLine, error.what());
    front_.start_at = now + std::chrono::seconds(1);
  }
}

void Supervisor::StartFront() {
  const FrontSettings settings = LoadSettings();
  accounts_state_ = StateOf(settings.web.accounts_file);
  const FileDescriptor file = WriteSettings(settings);
  std::vector<int> descriptors = {file.Get()};
  for (const FileDescriptor* listener : {&http_, &https_}) {
    if (listener->IsOpen()) {
      descriptors.push_back(listener->Get());
    }
  }
  ControlSockets sockets = MakeControlSockets();
  const FileDescriptor log = OpenLog();
  front_.pid = Start({Sibling("quillon-webapid-front"), "", sockets.theirs.Get(), log.Get()},
                     former_signals_);
  front_.started = Clock::now();
  last_alive_ = front_.started;
  ++front_.generation;
  control_ = std::move(sockets.ours);
  Send(control_.Get(), {ControlMessage::kSettings}, descriptors);
  // The workers of a former front have lost their other end, and end by themselves.
}

void Supervisor::StartWorker(std::uint32_t worker) {
  std::array<int, 2> ends{};
  if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends.data()) != 0) {
    Fail("socketpair");
  }
  const FileDescriptor front_end(ends[0]);
  const FileDescriptor worker_end(ends[1]);
  Child& child = workers_[worker];
  // Signals that arrive before it is ready for them must not end it.
  sigset_t signals = former_signals_;
  ::sigaddset(&signals, SIGHUP);
  child.pid = Start({Sibling("quillon-webapid-worker"), configuration_file_, worker_end.Get(), -1},
                    signals);
  child.started = Clock::now();
  ++child.generation;
  Send(control_.Get(), {ControlMessage::kWorker, worker, child.generation}, {front_end.Get()});
}

void Supervisor::HandleSignals() {
  signalfd_siginfo info{};
  while (::read(signals_.Get(), &info, sizeof(info)) == sizeof(info)) {
    switch (static_cast<int>(info.ssi_signo)) {
      case SIGCHLD:
        break;  // several may have become one
      case SIGHUP:
        Reload();
        break;
      default:
        Stop();
    }
  }
  Reap();
}

void Supervisor::Reload() {
  if (is_stopping_) {
    return;
  }
  Notify("RELOADING=1");
  const auto former = platform::CurrentConfiguration();
  try {
    Load(configuration_file_);
    SendSettings();
    for (const Child& worker : workers_) {
      Kill(worker.pid, SIGHUP);
    }
    maillog(LOG_INFO, "%s:%d reloaded", kSourceFile, kReloadedLine);
  } catch (const std::exception& error) {
    platform::UseConfiguration(*former);
    maillog(LOG_ERR, "%s:%d not reloaded: %s", kSourceFile, kNotReloadedLine, error.what());
  }
  Notify("READY=1");
}

void Supervisor::ReloadChangedAccounts() {
  const std::string path = platform::CurrentConfiguration()->web.accounts_file;
  const std::string state = StateOf(path);
  if (is_stopping_ || state == accounts_state_) {
    return;
  }
  try {
    SendSettings();
  } catch (const std::exception& error) {
    accounts_state_ = state;  // said once
    maillog(LOG_ERR, "%s:%d accounts not reloaded: %s", kSourceFile, kNotReloadedLine,
            error.what());
  }
}

void Supervisor::SendSettings() {
  const FrontSettings settings = LoadSettings();
  accounts_state_ = StateOf(settings.web.accounts_file);
  const FileDescriptor file = WriteSettings(settings);
  if (control_.IsOpen() && !Send(control_.Get(), {ControlMessage::kSettings}, {file.Get()})) {
    throw std::runtime_error("the front does not listen");
  }
}

void Supervisor::HandleFront() {
  try {
    const auto received = Receive(control_.Get());
    if (!received) {
      return;
    }
    const ControlMessage& message = received->message;
    last_alive_ = Clock::now();
    if (message.kind == ControlMessage::kReady && !is_ready_) {
      is_ready_ = true;
      maillog(LOG_INFO, "%s:%d started", kSourceFile, kStartedLine);
      Notify("READY=1");
    }
    // The front is not trusted: it can have no process killed but a worker.
    if (message.kind == ControlMessage::kReplaceWorker && message.worker < workers_.size() &&
        message.generation == workers_[message.worker].generation) {
      Kill(workers_[message.worker].pid, SIGKILL);
    }
  } catch (const std::system_error&) {
    control_ = FileDescriptor();  // it has ended, or is made to
    Kill(front_.pid, is_stopping_ ? 0 : SIGKILL);
  }
}

void Supervisor::CheckFront() {
  const auto now = Clock::now();
  if (front_.pid > 0 &&
      (now - last_alive_ >= kLongestSilence || (is_stopping_ && now >= stop_by_))) {
    maillog(LOG_ERR, "%s:%d the front hangs", kSourceFile, kHungLine);
    Kill(front_.pid, SIGKILL);
    last_alive_ = now;
  }
}

void Supervisor::Reap() {
  int status = 0;
  for (pid_t pid = ::waitpid(-1, &status, WNOHANG); pid > 0;
       pid = ::waitpid(-1, &status, WNOHANG)) {
    if (pid == front_.pid) {
      control_ = FileDescriptor();
      NoteEnd(front_, "front", status);
      continue;
    }
    const auto worker = std::find_if(workers_.begin(), workers_.end(),
                                     [pid](const Child& child) { return child.pid == pid; });
    if (worker != workers_.end()) {
      NoteEnd(*worker, "worker", status);
    }
  }
}

void Supervisor::NoteEnd(Child& child, const char* name, int status) {
  const auto now = Clock::now();
  child.delay = now - child.started >= kShortLife
                    ? std::chrono::milliseconds(0)
                    : std::clamp(child.delay * 2, kFirstDelay, kLongestDelay);
  child.start_at = now + child.delay;
  child.pid = 0;
  if (!is_stopping_) {
    maillog(LOG_ERR, "%s:%d a %s ended with %s %d", kSourceFile, kEndedLine, name,
            WIFSIGNALED(status) ? "signal" : "status",
            WIFSIGNALED(status) ? WTERMSIG(status) : WEXITSTATUS(status));
  }
}

// The workers end when the front has: it holds the other ends of their sockets.
void Supervisor::Stop() {
  if (std::exchange(is_stopping_, true)) {
    return;
  }
  stop_by_ = Clock::now() + kLongestStop;
  Notify("STOPPING=1");
  if (!control_.IsOpen() || !Send(control_.Get(), {ControlMessage::kStop})) {
    Kill(front_.pid, SIGKILL);
  }
}

}  // namespace quillon::webapid
