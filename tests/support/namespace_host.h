#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

#include "support/program.h"
#include "support/temporary_folder.h"

namespace quillon::test {

/// A host of the test's own on this machine: it has a name, a network (only loopback, until it is
/// joined to another), processes and mounts of its own, its own /etc, which begins as a copy of the
/// machine's, an empty /run and an empty /var/lib. All else is the machine's. Whatever runs on it
/// ends with the object, and with this process, however that ends. Whatever it cannot do throws.
class NamespaceHost {
 public:
  explicit NamespaceHost(const std::string& name);
  NamespaceHost(const NamespaceHost&) = delete;
  NamespaceHost& operator=(const NamespaceHost&) = delete;
  ~NamespaceHost();

  /// What this machine lacks for such hosts; empty when it lacks nothing.
  static std::string Lacking();
  /// Joins two hosts by a cable. The first becomes 10.99.0.1, the second 10.99.0.2, and each knows
  /// both by their names.
  static void Join(const NamespaceHost& first, const NamespaceHost& second);

  const std::string& name() const { return name_; }
  /// The path by which this process knows a file or folder of the host.
  std::string Outside(const std::string& path) const;
  /// Empty when there is no such file.
  std::string Read(const std::string& path) const;
  /// Makes the file's folder, too.
  void Write(const std::string& path, const std::string& text) const;

  /// The command that runs this one on the host, in its root folder. The program that it starts
  /// here has the program there as its only child.
  std::vector<std::string> CommandLine(const std::vector<std::string>& command) const;
  Outcome Run(const std::vector<std::string>& command, const std::string& input = "") const;

 private:
  void Do(const std::vector<std::string>& command) const;

  std::string name_;
  TemporaryFolder folder_;  // for what is said when there can be no host
  BackgroundProgram namespaces_;
  pid_t first_process_;
};

}  // namespace quillon::test
