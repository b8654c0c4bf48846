// sync-in-a-straight-line WORLD: the mail users of the world into its quota store, by a program
// that knows where everything is: one pass over the accounts file and one over the groups file, two
// SELECTs to compare with, and, where anything differs, one transaction with two prepared INSERTs.
#include <algorithm>
#include <cstddef>
#include <cstdlib>
#include <fstream>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

#include <sqlite3.h>

namespace {

struct User {
  unsigned int uid = 0;
  std::string name;
  unsigned int gid = 0;
  std::string home;

  bool operator==(const User&) const = default;
};

using Membership = std::pair<unsigned int, unsigned int>;  // uid and gid

struct MailUsers {
  std::vector<User> users;
  std::vector<Membership> groups;

  bool operator==(const MailUsers&) const = default;
};

std::vector<std::string> Split(const std::string& text, char separator) {
  std::vector<std::string> parts;
  for (std::size_t begin = 0; begin < text.size();) {
    const std::size_t end = std::min(text.find(separator, begin), text.size());
    parts.push_back(text.substr(begin, end - begin));
    begin = end + 1;
  }
  return parts;
}

unsigned int Number(const std::string& text) {
  return static_cast<unsigned int>(std::strtoul(text.c_str(), nullptr, 10));
}

MailUsers ReadAccounts(const std::string& world) {
  MailUsers all;
  std::unordered_map<std::string, unsigned int> uids;
  std::ifstream passwd(world + "/passwd");
  for (std::string line; std::getline(passwd, line);) {
    const std::vector<std::string> fields = Split(line, ':');
    const User user = {Number(fields[2]), fields[0], Number(fields[3]),
                       world + "/spool/local/" + fields[0]};
    uids.emplace(user.name, user.uid);
    all.groups.emplace_back(user.uid, user.gid);
    all.users.push_back(user);
  }
  std::ifstream group(world + "/group");
  for (std::string line; std::getline(group, line);) {
    const std::vector<std::string> fields = Split(line, ':');
    if (fields.size() > 3) {
      for (const std::string& member : Split(fields[3], ',')) {
        all.groups.emplace_back(uids.at(member), Number(fields[2]));
      }
    }
  }
  std::sort(all.users.begin(), all.users.end(),
            [](const User& left, const User& right) { return left.uid < right.uid; });
  std::sort(all.groups.begin(), all.groups.end());
  all.groups.erase(std::unique(all.groups.begin(), all.groups.end()), all.groups.end());
  return all;
}

class Statement {
 public:
  Statement(sqlite3* database, const char* sql) {
    sqlite3_prepare_v2(database, sql, -1, &statement_, nullptr);
  }
  Statement(const Statement&) = delete;
  Statement& operator=(const Statement&) = delete;
  ~Statement() { sqlite3_finalize(statement_); }

  bool Next() { return sqlite3_step(statement_) == SQLITE_ROW; }
  unsigned int Id(int column) {
    return static_cast<unsigned int>(sqlite3_column_int64(statement_, column));
  }
  std::string Text(int column) {
    return reinterpret_cast<const char*>(sqlite3_column_text(statement_, column));
  }

  void Bind(int index, unsigned int id) { sqlite3_bind_int64(statement_, index, id); }
  void Bind(int index, const std::string& text) {
    sqlite3_bind_text(statement_, index, text.data(), static_cast<int>(text.size()), SQLITE_STATIC);
  }
  void Do() {
    sqlite3_step(statement_);
    sqlite3_reset(statement_);
  }

 private:
  sqlite3_stmt* statement_ = nullptr;
};

MailUsers ReadStore(sqlite3* database) {
  MailUsers all;
  Statement users(database, "SELECT id, name, gid, home FROM mail_user ORDER BY id");
  while (users.Next()) {
    all.users.push_back({users.Id(0), users.Text(1), users.Id(2), users.Text(3)});
  }
  Statement groups(database, "SELECT id, gid FROM mail_user_group ORDER BY id, gid");
  while (groups.Next()) {
    all.groups.emplace_back(groups.Id(0), groups.Id(1));
  }
  return all;
}

void WriteStore(sqlite3* database, const MailUsers& all) {
  Statement(database, "DELETE FROM mail_user").Do();
  Statement(database, "DELETE FROM mail_user_group").Do();
  Statement add_user(database, "INSERT INTO mail_user (id, name, gid, home) VALUES (?, ?, ?, ?)");
  for (const User& user : all.users) {
    add_user.Bind(1, user.uid);
    add_user.Bind(2, user.name);
    add_user.Bind(3, user.gid);
    add_user.Bind(4, user.home);
    add_user.Do();
  }
  Statement add_group(database, "INSERT INTO mail_user_group (id, gid) VALUES (?, ?)");
  for (const auto& [uid, gid] : all.groups) {
    add_group.Bind(1, uid);
    add_group.Bind(2, gid);
    add_group.Do();
  }
}

}  // namespace

int main(int /*argc*/, char** argv) {
  const std::string world = argv[1];
  const MailUsers wanted = ReadAccounts(world);
  sqlite3* database = nullptr;
  sqlite3_open((world + "/quota.db").c_str(), &database);
  sqlite3_exec(database, "BEGIN IMMEDIATE", nullptr, nullptr, nullptr);
  if (ReadStore(database) != wanted) {
    WriteStore(database, wanted);
  }
  sqlite3_exec(database, "COMMIT", nullptr, nullptr, nullptr);
  return sqlite3_close(database) == SQLITE_OK ? 0 : 1;
}
