#pragma once

#include <sys/types.h>

#include <chrono>
#include <csignal>
#include <cstdint>
#include <string>
#include <vector>

#include <quillon/platform/configuration.h>
#include <quillon/platform/file_descriptor.h>
#include <quillon/platform/file_state.h>

#include "settings.h"

namespace quillon::webapid {

/// Keeps the front and the workers running, and tells them what has changed. Root, one thread; it
/// handles nothing that comes from the network.
class Supervisor {
 public:
  /// Binds the sockets. `configuration_file` is empty for the default one. Throws
  /// `std::runtime_error`.
  explicit Supervisor(std::string configuration_file);
  Supervisor(const Supervisor&) = delete;
  Supervisor& operator=(const Supervisor&) = delete;
  /// Kills what is still running.
  ~Supervisor();

  /// Until SIGTERM or SIGINT, and until what was running then has ended. The program's exit code.
  int Run();

 private:
  using Clock = std::chrono::steady_clock;

  // A program that is kept running.
  struct Child {
    pid_t pid = 0;  // 0: none
    std::uint32_t generation = 0;
    Clock::time_point started;
    Clock::time_point start_at;  // not before
    std::chrono::milliseconds delay{0};
  };

  // A worker whose front has ended.
  struct Leftover {
    pid_t pid = 0;
    Clock::time_point kill_at;
  };

  // What the front gets, at first and whenever it changes.
  struct SettingsFiles {
    platform::FileDescriptor settings;
    platform::FileDescriptor log;  // none for syslog
  };

  FrontSettings LoadSettings() const;
  SettingsFiles OpenSettings();
  bool HasStopped() const;
  void StartWhatIsDue();
  void StartFront();
  void StartWorker(std::uint32_t worker);
  void Reload();
  void ReloadChangedAccounts();
  void SendSettings();
  void HandleSignals();
  void HandleFront();
  void Reap();
  void NoteEnd(Child& child, const char* name, int status);
  void CheckFront();
  void LeaveWorkers();
  void CheckLeftovers();
  void Stop();

  std::string configuration_file_;
  platform::FileDescriptor configuration_text_;  // of the one in force; closed without a file
  sigset_t former_signals_{};
  platform::FileDescriptor signals_;
  platform::FileDescriptor http_;
  platform::FileDescriptor https_;
  platform::FileDescriptor control_;  // to the front; closed without one
  Child front_;
  std::vector<Child> workers_;
  std::vector<Leftover> leftovers_;
  platform::FileState accounts_state_{{}};
  bool is_ready_ = false;
  bool is_stopping_ = false;
  Clock::time_point stop_by_;
  Clock::time_point last_alive_;
  Clock::time_point last_notified_;
};

}  // namespace quillon::webapid
