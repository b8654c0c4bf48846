#include "supervisor.h"

#include <fcntl.h>
#include <poll.h>
#include <pwd.h>
#include <sys/mman.h>
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
#include <fstream>
#include <iterator>
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
constexpr int kAccountsNotReloadedLine = 49;
constexpr int kStoppedLine = 53;
constexpr int kHungLine = 59;
constexpr int kNotStartedLine = 61;
constexpr int kLeftoverLine = 67;

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

// A copy without a name, which nobody changes any more.
FileDescriptor CopyOf(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  // A stream that it is copied into would just end where memory does.
  const std::string text{std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
  FileDescriptor copy(::memfd_create("configuration", MFD_CLOEXEC));
  if (!copy.IsOpen() || ::fchmod(copy.Get(), 0600) != 0 ||
      ::write(copy.Get(), text.data(), text.size()) != static_cast<ssize_t>(text.size())) {
    Fail("a copy of " + path);
  }
  return copy;
}

// Makes a file's configuration that of this process, and answers a copy of it; closed without a
// file.
FileDescriptor Load(const std::string& file) {
  std::string path = file;
  if (path.empty() && ::access(platform::kDefaultConfigurationFile, F_OK) == 0) {
    path = platform::kDefaultConfigurationFile;
  }
  if (path.empty()) {
    platform::UseConfiguration(platform::Configuration());
    return FileDescriptor();
  }
  // The file for the sake of what it says about what is wrong; then what was copied, in case it has
  // changed since.
  static_cast<void>(platform::LoadConfiguration(path));
  FileDescriptor copy = CopyOf(path);
  platform::UseConfiguration(
      platform::LoadConfiguration("/proc/self/fd/" + std::to_string(copy.Get())));
  return copy;
}

std::string Sibling(const char* name) {
  return std::filesystem::read_symlink("/proc/self/exe").replace_filename(name);
}

// The front cannot open the log's file itself. Nothing for syslog.
FileDescriptor OpenLog() {
  const auto log = platform::CurrentConfiguration()->log;
  if (log.target == "syslog") {
    return FileDescriptor();
  }
  FileDescriptor file(
      log.target == "stderr"
          ? ::fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, STDERR_FILENO + 1)
          : ::open(log.file.c_str(),
                   O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY,
                   0640));
  if (!file.IsOpen()) {
    Fail("log." + log.target + " " + log.file);
  }
  return file;
}

// That of a file without anything in it where there is none.
platform::FileState StateOf(const std::string& path) {
  struct stat status {};
  if (::stat(path.c_str(), &status) != 0) {
    status = {};
  }
  return platform::FileState(status);
}

struct Program {
  std::string path;
  std::string argument;  // none when empty
  int socket;            // becomes `kSupervisorSocket`
  int text = -1;         // becomes `kConfigurationText`, unless it is -1
};

// In the child, between fork and exec: system calls only.
[[noreturn]] void Execute(const Program& program, char* const* arguments, const sigset_t& signals,
                          pid_t parent) {
  ::prctl(PR_SET_PDEATHSIG, SIGKILL);
  if (::getppid() != parent) {
    ::_exit(EXIT_FAILURE);
  }
  ::sigprocmask(SIG_SETMASK, &signals, nullptr);
  // Out of each other's way first: either may have the number that the other is to get.
  constexpr int kOutOfTheWay = 16;
  const int socket = ::fcntl(program.socket, F_DUPFD_CLOEXEC, kOutOfTheWay);
  const int text = program.text < 0 ? -1 : ::fcntl(program.text, F_DUPFD_CLOEXEC, kOutOfTheWay);
  ::dup2(socket, kSupervisorSocket);
  ::close(kConfigurationText);
  if (text >= 0) {
    ::dup2(text, kConfigurationText);
  }
  ::execv(program.path.c_str(), arguments);
  ::_exit(127);
}

// Signals that were meant for this process and went to all of its group do not end the program, nor
// does one that arrives before it is ready for it.
pid_t Start(const Program& program, sigset_t signals) {
  for (const int signal : {SIGTERM, SIGINT, SIGHUP}) {
    ::sigaddset(&signals, signal);
  }
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
  configuration_text_ = Load(configuration_file_);
  const auto configuration = platform::CurrentConfiguration();
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
  for (const Leftover& one : leftovers_) {
    Kill(one.pid, SIGKILL);
  }
  ::sigprocmask(SIG_SETMASK, &former_signals_, nullptr);
}

FrontSettings Supervisor::LoadSettings() const {
  const auto configuration = platform::CurrentConfiguration();
  FrontSettings settings;
  settings.web = configuration->web;
  settings.has_log = configuration->log.target != "syslog";
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

// The front has ended, and so has what its workers were doing.
bool Supervisor::HasStopped() const {
  return is_stopping_ && front_.pid == 0 && (leftovers_.empty() || Clock::now() >= stop_by_);
}

int Supervisor::Run() {
  last_notified_ = Clock::now();
  const auto watchdog = WatchdogInterval();
  while (!HasStopped()) {
    StartWhatIsDue();
    std::array<pollfd, 2> waiting = {pollfd{signals_.Get(), POLLIN, 0},
                                     pollfd{control_.Get(), POLLIN, 0}};
    ::poll(waiting.data(), waiting.size(), is_stopping_ ? 50 : kMillisecondsPerRound / 4);
    if (waiting[1].revents != 0) {
      HandleFront();
    }
    HandleSignals();
    CheckFront();
    CheckLeftovers();
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
  const SettingsFiles files = OpenSettings();
  std::vector<int> descriptors = {files.settings.Get()};
  for (const FileDescriptor* further :
       std::array<const FileDescriptor*, 3>{&files.log, &http_, &https_}) {
    if (further->IsOpen()) {
      descriptors.push_back(further->Get());
    }
  }
  ControlSockets sockets = MakeControlSockets();
  front_.pid = Start({Sibling("quillon-webapid-front"), "", sockets.theirs.Get()}, former_signals_);
  front_.started = Clock::now();
  last_alive_ = front_.started;
  ++front_.generation;
  control_ = std::move(sockets.ours);
  Send(control_.Get(), {ControlMessage::kSettings}, descriptors);
}

void Supervisor::StartWorker(std::uint32_t worker) {
  std::array<int, 2> ends{};
  if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends.data()) != 0) {
    Fail("socketpair");
  }
  const FileDescriptor front_end(ends[0]);
  const FileDescriptor worker_end(ends[1]);
  Child& child = workers_[worker];
  child.pid = Start({Sibling("quillon-webapid-worker"), configuration_file_, worker_end.Get(),
                     configuration_text_.Get()},
                    former_signals_);
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
    FileDescriptor text = Load(configuration_file_);
    SendSettings();
    configuration_text_ = std::move(text);
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
  if (is_stopping_ || StateOf(path) == accounts_state_) {
    return;
  }
  try {
    SendSettings();
  } catch (const std::exception& error) {
    maillog(LOG_ERR, "%s:%d accounts not reloaded: %s", kSourceFile, kAccountsNotReloadedLine,
            error.what());
  }
}

// The state first: a change while the file is being read is noticed later.
Supervisor::SettingsFiles Supervisor::OpenSettings() {
  accounts_state_ = StateOf(platform::CurrentConfiguration()->web.accounts_file);
  return {WriteSettings(LoadSettings()), OpenLog()};
}

void Supervisor::SendSettings() {
  const SettingsFiles files = OpenSettings();
  std::vector<int> descriptors = {files.settings.Get()};
  if (files.log.IsOpen()) {
    descriptors.push_back(files.log.Get());
  }
  if (control_.IsOpen() && !Send(control_.Get(), {ControlMessage::kSettings}, descriptors)) {
    // It hangs, or is gone: the next one gets the new settings.
    Kill(front_.pid, SIGKILL);
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
      LeaveWorkers();
      continue;
    }
    std::erase_if(leftovers_, [pid](const Leftover& one) { return one.pid == pid; });
    const auto worker = std::find_if(workers_.begin(), workers_.end(),
                                     [pid](const Child& child) { return child.pid == pid; });
    if (worker != workers_.end()) {
      NoteEnd(*worker, "worker", status);
    }
  }
}

// The workers of a front that has ended have lost their other end, and end by themselves when they
// have done what they are doing. The next front gets others at once.
void Supervisor::LeaveWorkers() {
  const auto kill_at =
      Clock::now() + std::chrono::seconds(platform::CurrentConfiguration()->web.request_timeout);
  for (Child& worker : workers_) {
    if (worker.pid > 0) {
      leftovers_.push_back({worker.pid, kill_at});
      worker.pid = 0;
    }
  }
}

// Nobody else watches whether they hang.
void Supervisor::CheckLeftovers() {
  const auto now = Clock::now();
  for (Leftover& one : leftovers_) {
    if (now >= one.kill_at) {
      maillog(LOG_ERR, "%s:%d a worker whose front has ended hangs", kSourceFile, kLeftoverLine);
      Kill(one.pid, SIGKILL);
      one.kill_at = Clock::time_point::max();
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

void Supervisor::Stop() {
  if (std::exchange(is_stopping_, true)) {
    return;
  }
  stop_by_ = Clock::now() + kLongestStop;
  http_ = FileDescriptor();  // whoever calls now is refused by the kernel, when the front agrees
  https_ = FileDescriptor();
  Notify("STOPPING=1");
  if (!control_.IsOpen() || !Send(control_.Get(), {ControlMessage::kStop})) {
    Kill(front_.pid, SIGKILL);
  }
}

}  // namespace quillon::webapid
