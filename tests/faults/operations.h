#pragma once

#include <functional>
#include <iosfwd>
#include <set>
#include <string>
#include <vector>

#include "faults/host.h"

namespace quillon::test {

/// Something that quillonctl does, which may be done twice.
struct Operation {
  std::string name;
  std::function<std::vector<std::string>(Host&)> arguments;
  std::string input = {};
  std::function<void(Host&)> before = {};  ///< what the host has to be like
  /// Each table of quotas is written by one call.
  bool is_one_batch = true;
  /// It ends before its job is done, which goes on in the background.
  bool is_in_background = false;
  std::set<std::string> doomed = {};  ///< accounts whose mail directories it removes
  /// A second run of it finds nothing to do, which it calls an error.
  bool fails_when_done = false;
  /// What clears up in the end, besides the operation itself.
  std::vector<std::string> clearing_up = {};
};

/// For the names of tests.
std::ostream& operator<<(std::ostream& out, const Operation& operation);

/// Those whose processes are killed at random.
std::vector<Operation> MainOperations();
/// All of them.
std::vector<Operation> Operations();

/// An operation, the host that it is tried on, and what it makes of it when nothing fails.
class Trial {
 public:
  explicit Trial(const Operation& operation);

  const Operation& operation() const { return operation_; }
  Host& host() { return host_; }
  std::vector<std::string> arguments() { return operation_.arguments(host_); }
  Outcome RunWithFaults() { return host_.Run(arguments(), operation_.input, true); }

  /// Expects that whatever the operation was at when it was disturbed is there as a whole or not at
  /// all, and no mail missing; when it said that it was done, that it is.
  void ExpectSoundness(bool has_succeeded);
  /// Expects that the operation succeeds when nothing disturbs it any more, and leaves nothing.
  void ExpectSuccessAtLast();

 private:
  bool IsDone();
  void ClearUp();
  void ExpectMail(bool is_done);

  Operation operation_;
  Host host_;
  State begun_;
  State done_;
  std::set<std::string> files_;  ///< that a run that nothing disturbs leaves
};

}  // namespace quillon::test
