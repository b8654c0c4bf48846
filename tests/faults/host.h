#pragma once

#include <sys/types.h>

#include <chrono>
#include <functional>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "faults/fault_plan.h"
#include "support/program.h"
#include "support/temporary_folder.h"
#include "system/world.h"

namespace quillon::test {

/// Everything that the stores of a host hold, in units each of which changes as a whole or not at
/// all: "user_limit of 2" are the limits of the users in the import's third group, "usage"
/// all figures in the usage store, "mail users" what a mail server reads of all accounts, "cached
/// PATH" the figure of an ownerless directory, "mail ACCOUNT" a mail directory, "privileges", "web
/// accounts" and "trusted hosts" one file each.
using State = std::map<std::string, std::string>;

/// The mail directories of a host: everything about them, by path below the maildir root.
using Mail = std::map<std::string, std::string>;

/// A host on which one operation is tried again and again, each time from the same beginning.
class Host {
 public:
  static constexpr unsigned kUsers = 24;
  static constexpr unsigned kGroups = 4;  ///< of an import: one for each remainder of the uid
  static constexpr char kDora[] = "dora";
  static constexpr unsigned kUidOfDora = 3000001;  ///< nobody's, as is Emil's
  static constexpr char kEmil[] = "emil";
  static constexpr unsigned kUidOfEmil = 3000002;

  Host();

  World& world() { return world_; }
  /// The names of the users that the operations are about.
  std::vector<std::string> Users() const;
  /// A file for an import, which gives every group of users a limit of its own.
  std::string QuotaFile() const;

  /// Makes what the host is like now the beginning. The directories of `doomed` accounts are put
  /// back by `Reset`; nothing else below the maildir root may change.
  void Keep(const std::set<std::string>& doomed);
  /// Goes back to the beginning.
  void Reset();

  /// Throws when a store cannot be read or is not sound. Looks at copies, so that nothing is
  /// repaired by being looked at.
  State Look();
  /// The files that are not mail, without those that SQLite has beside its databases, as it may
  /// when a process that uses them ends otherwise than by itself.
  std::set<std::string> Files() const;
  Mail MailOf(const std::string& account) const;
  /// Of every account that has a mail directory at the beginning.
  const std::map<std::string, Mail>& mail() const { return mail_; }

  /// The mail log since it was last cleared.
  std::string Log() const;
  void ClearLog() const;

  /// Runs quillonctl under the plan, and waits for all that it leaves running.
  Outcome Run(const std::vector<std::string>& arguments, const std::string& input = "",
              bool with_faults = false);
  /// Starts quillonctl and kills it, and all that it has started, after a while; answers whether
  /// it was still running.
  bool RunAndKill(const std::vector<std::string>& arguments, std::chrono::microseconds after);
  FaultPlan& plan() { return *plan_; }
  /// Settings for a program that is to load a library that fails calls.
  std::vector<std::string> FaultEnvironment(const std::string& library) const;
  /// Waits for whatever was left running, by all but this one.
  void WaitForAll(pid_t but = 0) const;

 private:
  std::set<pid_t> Strangers(pid_t but = 0) const;
  void ReadQuotas(State& state) const;
  void ReadCache(State& state) const;
  std::string Copy(const std::string& database) const;

  TemporaryFolder scratch_;  // copies, the plan, the log
  FaultPlan* plan_;
  World world_;
  std::set<pid_t> servers_;
  std::set<std::string> doomed_;
  std::vector<std::string> figures_;  // of the usage store: arguments of MSET
  std::map<std::string, Mail> mail_;
};

}  // namespace quillon::test
