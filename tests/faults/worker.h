#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include <quillon/platform/file_descriptor.h>

#include "frame.h"

namespace quillon::test {

/// A worker of the web server, asked as its front asks it.
class Worker {
 public:
  /// `environment` has "NAME=VALUE" settings.
  Worker(const std::string& configuration_file, const std::vector<std::string>& environment);
  Worker(const Worker&) = delete;
  Worker& operator=(const Worker&) = delete;
  ~Worker();

  pid_t pid() const { return pid_; }

  /// The answer to an administrator's request; nothing when the worker has ended instead. Throws
  /// when it answers something else than what it was asked, or nothing for a long time.
  std::optional<webapid::Frame> Ask(const std::vector<std::string>& parts);

 private:
  bool Send(const std::string& bytes) const;
  bool IsReadable() const;

  platform::FileDescriptor socket_;
  pid_t pid_ = -1;
  std::uint32_t asked_ = 0;
  webapid::FrameReader reader_;
};

}  // namespace quillon::test
