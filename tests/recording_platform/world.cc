#include "recording_platform/world.h"

namespace recording {

std::ostream& operator<<(std::ostream& stream, const LogRecord& record) {
  return stream << record.priority << ", \"" << record.format << "\": " << record.text;
}

void World::AddUser(const std::string& name, unsigned int uid, const std::string& real_name) {
  users.push_back({name, uid, real_name});
}

void World::AddGroup(const std::string& name, unsigned int gid) {
  groups.push_back({name, gid, name});
}

void World::AddOwnerless(const std::string& path, const OwnerlessMaildir& maildir) {
  command_output.push_back(path + "\n");
  ownerless[path] = maildir;
}

void World::FailCall(int number, Failure failure) {
  failures_by_number_[number] = std::move(failure);
}

void World::FailCallsStartingWith(const std::string& prefix, Failure failure) {
  failures_by_prefix_.emplace_back(prefix, std::move(failure));
}

void World::Call(const std::string& line) {
  if (pauses_ > 0) {
    return;
  }
  Note(line);
  ++calls_;
  if (const auto found = failures_by_number_.find(calls_); found != failures_by_number_.end()) {
    found->second();
  }
  for (const auto& [prefix, failure] : failures_by_prefix_) {
    if (line.starts_with(prefix)) {
      failure();
    }
  }
}

void World::Note(std::string_view line) {
  if (pauses_ == 0) {
    transcript.emplace_back(line);
  }
}

void World::Log(const LogRecord& record) {
  if (pauses_ == 0) {
    log.push_back(record);
    Note("maillog(" + std::to_string(record.priority) + ", \"" + record.text + "\")");
  }
}

void World::SystemLog(const LogRecord& record) {
  if (pauses_ == 0) {
    system_log.push_back(record);
    Note("syslog(" + std::to_string(record.priority) + ", \"" + record.text + "\")");
  }
}

World& TheWorld() {
  static World world;
  return world;
}

}  // namespace recording
