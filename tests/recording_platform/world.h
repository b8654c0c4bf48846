#pragma once

#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <optional>
#include <ostream>
#include <set>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>
#include <vector>

#include <json/value.h>

#include <quillon/platform/mail_users.h>
#include <vela/api_runner.h>
#include <velamailserver/account/maildir.h>

namespace recording {

struct Account {
  std::string name;
  unsigned int id;
  std::string real_name;
};

/// One record of a log: how maillog() or syslog() was called, and the text that came of it.
struct LogRecord {
  int priority;
  std::string format;
  std::string text;

  bool operator==(const LogRecord&) const = default;
};

std::ostream& operator<<(std::ostream& stream, const LogRecord& record);

/// What the account library finds at a path.
struct OwnerlessMaildir {
  unsigned int uid = 0;
  std::optional<unsigned long long> usage;
  std::optional<std::string> name;
  bool flag = true;
};

/// Values of the quota store as it answers them: uid or gid, decimal text.
using StoredValues = std::vector<std::pair<std::uint32_t, std::string>>;

/// Throws. Called at the moment of the failure, because an exception may log when it is built.
using Failure = std::function<void()>;

template <typename Exception, typename... Args>
Failure Throw(Args... args) {
  return [=] { throw Exception(args...); };
}

/// The outside world of the library under test.
///
/// A test scripts what the platform answers, calls the library and reads the transcript. The
/// answers of the stores are given whatever they are asked; what they are asked is in the
/// transcript.
class World {
 public:
  // The script.
  void AddUser(const std::string& name, unsigned int uid, const std::string& real_name);
  void AddUser(const std::string& name, unsigned int uid) { AddUser(name, uid, name); }
  void AddGroup(const std::string& name, unsigned int gid);
  /// A directory without an owner, of which the command prints the path.
  void AddOwnerless(const std::string& path, const OwnerlessMaildir& maildir);

  std::vector<Account> users;  ///< found by name in any letter case, and by uid
  std::vector<Account> groups;
  StoredValues user_limits;
  StoredValues user_warnings;
  StoredValues group_limits;
  StoredValues group_warnings;
  std::unordered_map<std::string, std::string> usage;
  quillon::platform::MailUserChanges mail_user_changes;        ///< what SyncMailUsers answers
  bool delete_usage = true;                                    ///< what DeleteUsage answers
  std::map<std::string, unsigned long long> effective_limits;  ///< by name; 0 for all others
  std::set<std::string> administrators;
  std::map<std::string, int> privileges;  ///< what VLIBAppPrivUserHas answers, by user; else 1
  Json::Value api_response;               ///< what every API answers that runs in this process
  std::map<std::string, Json::Value> api_responses;  ///< in its place, by API
  std::string maildir_path = "/maildir";
  std::vector<velamailserver::account::BaseMaildir> maildirs;  ///< found by uid
  /// Found by path; a path that is not in here gets no flag.
  std::unordered_map<std::string, OwnerlessMaildir> ownerless;
  bool delete_maildir = true;               ///< what Delete answers
  bool can_start_commands = true;           ///< whether a Popen gets its stream
  std::vector<std::string> command_output;  ///< what every command prints, as GetLine answers it
  std::function<int()> fork = [] { return 4711; };  ///< what forking a child answers

  // Other hosts. A body is what a host answers to a call of an API.
  std::string body = R"({"success":true})";
  std::map<std::string, std::string> bodies;  ///< in its place, by API
  std::set<std::string> unacceptable_urls;
  std::set<std::string> unreachable_urls;
  std::optional<std::string> held_url;  ///< what GetURL answers in place of what was set
  int request_error = 7;                ///< what GetError answers
  bool alloc_cred = true;
  bool alloc_session = true;
  bool login = true;
  bool create_request = true;
  int queue_index = 0;  ///< what AddCredRequest answers; negative: it does not take the request
  bool set_response_timeout = true;

  // The effective identity. The real and the saved one do not matter here.
  unsigned int euid = 0;
  unsigned int egid = 0;
  /// What the coming calls of geteuid() and getegid() answer, until they answer the identity.
  std::deque<unsigned int> next_euids;
  std::deque<unsigned int> next_egids;
  /// What the coming calls of setresuid() and setresgid() answer, until they succeed; they change
  /// the identity when they answer 0.
  std::deque<int> next_identity_results;

  /// The call of this number throws instead of answering. Calls are counted from 1; those that
  /// cannot fail (the logs, the identity, what releases something) are not counted.
  void FailCall(int number, Failure failure);
  /// Every call whose line of the transcript starts so throws instead of answering.
  void FailCallsStartingWith(const std::string& prefix, Failure failure);

  // What happened.
  std::vector<std::string> transcript;  ///< one line for each call, a failed one too
  std::vector<LogRecord> log;
  std::vector<LogRecord> system_log;
  std::map<std::string, VELA::APIRunner::Handler> handlers;  ///< registered, by "API METHOD"

  // For the stand-in's own use.
  /// Records a call and fails it when the script says so.
  void Call(const std::string& line);
  /// Records a call that cannot fail.
  void Note(std::string_view line);
  /// Records a call of maillog().
  void Log(const LogRecord& record);
  /// Records a call of syslog().
  void SystemLog(const LogRecord& record);

 private:
  friend class Pause;

  std::map<int, Failure> failures_by_number_;
  std::vector<std::pair<std::string, Failure>> failures_by_prefix_;
  int calls_ = 0;
  int pauses_ = 0;
};

World& TheWorld();

/// Nothing is recorded or fails during its life: for calls of the test itself.
class Pause {
 public:
  Pause() { ++TheWorld().pauses_; }
  Pause(const Pause&) = delete;
  Pause& operator=(const Pause&) = delete;
  ~Pause() { --TheWorld().pauses_; }
};

}  // namespace recording
