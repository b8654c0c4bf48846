// One worker: root, one thread, one call at a time. It has no socket but that to the front.
#include <syslog.h>

#include <csignal>
#include <cstdlib>
#include <exception>
#include <string>

#include <quillon/handlers/register.h>
#include <quillon/platform/configuration.h>
#include <quillon/platform/utilization.h>
#include <velamailserver/maillog.h>

#include "descriptors.h"
#include "worker.h"

namespace {

constexpr char kSourceFile[] = "apps/quillon-webapid/worker";
constexpr int kEndedLine = 23;
constexpr int kReloadFailedLine = 29;

std::string configuration_file;  // empty: the default one, which may be missing

void LoadConfigurationFile() {
  using namespace quillon::platform;
  if (!configuration_file.empty()) {
    UseConfiguration(LoadConfiguration(configuration_file));
  }
}

// Blocked, so that no call is interrupted by it; asked for between the calls.
sigset_t ReloadSignal() {
  sigset_t signals;
  ::sigemptyset(&signals);
  ::sigaddset(&signals, SIGHUP);
  return signals;
}

void ReloadIfAsked() {
  static const sigset_t kSignals = ReloadSignal();
  constexpr timespec kNow{};
  if (::sigtimedwait(&kSignals, nullptr, &kNow) != SIGHUP) {
    return;
  }
  try {
    LoadConfigurationFile();
  } catch (const std::exception& error) {
    maillog(LOG_ERR, "%s:%d configuration not reloaded: %s", kSourceFile, kReloadFailedLine,
            error.what());
  }
}

void BetweenCalls() {
  quillon::platform::SampleUtilization();
  ReloadIfAsked();
}

}  // namespace

int main(int argc, char** argv) {
  const sigset_t signals = ReloadSignal();
  ::sigprocmask(SIG_BLOCK, &signals, nullptr);
  try {
    configuration_file = argc > 1 ? argv[1] : "";
    LoadConfigurationFile();
    quillon::handlers::RegisterAll();
    quillon::webapid::Serve(quillon::webapid::kSupervisorSocket, BetweenCalls);
  } catch (const std::exception& error) {
    maillog(LOG_ERR, "%s:%d %s", kSourceFile, kEndedLine, error.what());
    return EXIT_FAILURE;
  }
  return EXIT_SUCCESS;
}
