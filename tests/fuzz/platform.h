#pragma once

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>
#include <string_view>
#include <utility>

#include <quillon/platform/configuration.h>
#include <quillon/platform/file_descriptor.h>

#include "fuzz/fuzz.h"

// For targets on the platform itself.
namespace quillon::fuzz {

/// A configuration that has nothing of this host's, and a log that goes nowhere.
inline platform::Configuration QuietConfiguration() {
  platform::Configuration configuration;
  configuration.log.target = "file";
  configuration.log.file = "/dev/null";
  configuration.cluster.trusted_hosts = "/nonexistent/trusted-hosts";
  return configuration;
}

/// A file without a name on the disk, for what is read from a file.
class NamelessFile {
 public:
  NamelessFile() : file_(::memfd_create("fuzz", MFD_CLOEXEC)) {
    // Its mode lets everybody write otherwise.
    Require(file_.IsOpen() && ::fchmod(file_.Get(), 0600) == 0, "there is a file");
    path_ = "/proc/self/fd/" + std::to_string(file_.Get());
  }

  void Write(std::string_view text) {
    const auto size = static_cast<ssize_t>(text.size());
    Require(::ftruncate(file_.Get(), 0) == 0 &&
                ::pwrite(file_.Get(), text.data(), text.size(), 0) == size,
            "the file is written");
  }

  const std::string& path() const { return path_; }

 private:
  platform::FileDescriptor file_;
  std::string path_;
};

}  // namespace quillon::fuzz
