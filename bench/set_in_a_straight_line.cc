// set-in-a-straight-line WORLD: the same rows by one prepared statement for the limits and one for
// the warning levels, one transaction each.
#include <cstdlib>
#include <fstream>
#include <string>
#include <utility>
#include <vector>

#include <sqlite3.h>

#include "timing.h"

namespace {

using Users = std::vector<std::pair<std::string, unsigned int>>;

Users ReadAccounts(const std::string& path) {
  Users users;
  std::ifstream file(path);
  for (std::string line; std::getline(file, line);) {
    const auto name_end = line.find(':');
    const auto uid_start = line.find(':', name_end + 1) + 1;
    users.emplace_back(line.substr(0, name_end), static_cast<unsigned int>(std::strtoul(
                                                     line.c_str() + uid_start, nullptr, 10)));
  }
  return users;
}

void Set(sqlite3* database, const std::string& table, const Users& users,
         const std::string& bytes) {
  const std::string sql =
      "INSERT INTO " + table +
      " (id, name, bytes) VALUES (?, ?, ?) "
      "ON CONFLICT (id) DO UPDATE SET name = excluded.name, bytes = excluded.bytes";
  sqlite3_exec(database, "BEGIN IMMEDIATE", nullptr, nullptr, nullptr);
  sqlite3_stmt* statement = nullptr;
  sqlite3_prepare_v2(database, sql.c_str(), -1, &statement, nullptr);
  for (const auto& [name, uid] : users) {
    sqlite3_bind_int64(statement, 1, uid);
    sqlite3_bind_text(statement, 2, name.data(), static_cast<int>(name.size()), SQLITE_STATIC);
    sqlite3_bind_text(statement, 3, bytes.data(), static_cast<int>(bytes.size()), SQLITE_STATIC);
    sqlite3_step(statement);
    sqlite3_reset(statement);
  }
  sqlite3_finalize(statement);
  sqlite3_exec(database, "COMMIT", nullptr, nullptr, nullptr);
}

}  // namespace

int main(int /*argc*/, char** argv) {
  const std::string world = argv[1];
  const Users users = ReadAccounts(world + "/passwd");

  quillon::bench::Time([&] {
    sqlite3* database = nullptr;
    sqlite3_open((world + "/quota.db").c_str(), &database);
    sqlite3_busy_timeout(database, 5000);
    Set(database, "user_limit", users, "1048576");
    Set(database, "user_warning", users, "1000000");
    sqlite3_close(database);
  });
}
