// One worker: root, one thread, one call at a time. It has no socket but that to the front.
#include <fcntl.h>
#include <pthread.h>
#include <sys/signalfd.h>
#include <syslog.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <exception>
#include <string>

#include <quillon/handlers/register.h>
#include <quillon/platform/configuration.h>
#include <quillon/platform/file_descriptor.h>
#include <quillon/platform/utilization.h>
#include <velamailserver/maillog.h>

#include "descriptors.h"
#include "handler_modules.h"
#include "worker.h"

namespace {

using quillon::webapid::kConfigurationText;

constexpr char kSourceFile[] = "apps/quillon-webapid/worker";
constexpr int kEndedLine = 23;
constexpr int kReloadFailedLine = 29;

std::string configuration_file;  // empty: the default one, which may be missing

// The one in force. A worker that is started while the file is being edited, or is wrong, must not
// end over it.
void UseConfigurationInForce() {
  using namespace quillon::platform;
  const FileDescriptor text(::fcntl(kConfigurationText, F_GETFD) < 0 ? -1 : kConfigurationText);
  UseConfiguration(text.IsOpen()
                       ? LoadConfiguration("/proc/self/fd/" + std::to_string(kConfigurationText))
                       : Configuration());
}

// The file's, which the supervisor has found to be good.
void LoadConfigurationFile() {
  using namespace quillon::platform;
  const std::string path =
      configuration_file.empty() ? kDefaultConfigurationFile : configuration_file;
  const bool is_missing = configuration_file.empty() && ::access(path.c_str(), F_OK) != 0;
  UseConfiguration(is_missing ? Configuration() : LoadConfiguration(path));
}

// Blocked, so that no call is interrupted by it; taken between the calls.
quillon::platform::FileDescriptor reload_signal;

void BlockReloadSignal() {
  sigset_t signals;
  ::sigemptyset(&signals);
  ::sigaddset(&signals, SIGHUP);
  ::sigprocmask(SIG_BLOCK, &signals, nullptr);
  reload_signal =
      quillon::platform::FileDescriptor(::signalfd(-1, &signals, SFD_CLOEXEC | SFD_NONBLOCK));
}

// A call may leave a process behind that works on after it: nobody could end that otherwise.
void UnblockSignals() {
  sigset_t none;
  ::sigemptyset(&none);
  ::sigprocmask(SIG_SETMASK, &none, nullptr);
}

void Reload() {
  signalfd_siginfo info{};
  static_cast<void>(::read(reload_signal.Get(), &info, sizeof(info)) < 0);
  try {
    LoadConfigurationFile();
  } catch (const std::exception& error) {
    maillog(LOG_ERR, "%s:%d configuration not reloaded: %s", kSourceFile, kReloadFailedLine,
            error.what());
  }
}

void BetweenCalls(bool has_signal) {
  quillon::platform::SampleUtilization();
  if (has_signal) {
    Reload();
  }
}

}  // namespace

int main(int argc, char** argv) {
  BlockReloadSignal();
  ::pthread_atfork(nullptr, nullptr, UnblockSignals);
  try {
    configuration_file = argc > 1 ? argv[1] : "";
    UseConfigurationInForce();
    // Before the package's own APIs, which they cannot replace therefore.
    quillon::webapid::LoadHandlerModules(
        quillon::platform::CurrentConfiguration()->web.handlers_folder);
    quillon::handlers::RegisterAll();
    quillon::webapid::Serve(quillon::webapid::kSupervisorSocket, reload_signal.Get(), BetweenCalls);
  } catch (const std::exception& error) {
    maillog(LOG_ERR, "%s:%d %s", kSourceFile, kEndedLine, error.what());
    return EXIT_FAILURE;
  }
  return EXIT_SUCCESS;
}
