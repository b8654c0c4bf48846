#include "plain_store.h"

#include <cstddef>
#include <cstdlib>
#include <fstream>

#include <sqlite3.h>

namespace quillon::bench {

std::unordered_map<std::string, unsigned int> ReadIds(const std::string& path) {
  std::unordered_map<std::string, unsigned int> ids;
  std::ifstream file(path);
  for (std::string line; std::getline(file, line);) {
    const auto name_end = line.find(':');
    const auto id_start = line.find(':', name_end + 1) + 1;
    ids.emplace(line.substr(0, name_end),
                static_cast<unsigned int>(std::strtoul(line.c_str() + id_start, nullptr, 10)));
  }
  return ids;
}

std::array<BytesById, 2> SelectBytes(const std::string& path,
                                     const std::array<const char*, 2>& statements) {
  sqlite3* database = nullptr;
  sqlite3_open(path.c_str(), &database);
  std::array<BytesById, 2> selected;
  for (std::size_t i = 0; i < statements.size(); ++i) {
    sqlite3_stmt* statement = nullptr;
    sqlite3_prepare_v2(database, statements[i], -1, &statement, nullptr);
    while (sqlite3_step(statement) == SQLITE_ROW) {
      selected[i].emplace(
          static_cast<unsigned int>(sqlite3_column_int64(statement, 0)),
          std::strtoull(reinterpret_cast<const char*>(sqlite3_column_text(statement, 1)), nullptr,
                        10));
    }
    sqlite3_finalize(statement);
  }
  sqlite3_close(database);
  return selected;
}

bool HaveSameRows(const std::string& path, const std::string& other_path,
                  const std::string& table) {
  sqlite3* database = nullptr;
  sqlite3_open(path.c_str(), &database);
  sqlite3_exec(database, ("ATTACH '" + other_path + "' AS other").c_str(), nullptr, nullptr,
               nullptr);
  const std::string ours = "SELECT * FROM main." + table;
  const std::string theirs = "SELECT * FROM other." + table;
  const std::string sql = "SELECT EXISTS (" + ours + ") AND NOT EXISTS (" + ours + " EXCEPT " +
                          theirs + ") AND NOT EXISTS (" + theirs + " EXCEPT " + ours + ")";
  sqlite3_stmt* statement = nullptr;
  sqlite3_prepare_v2(database, sql.c_str(), -1, &statement, nullptr);
  const bool are_same =
      sqlite3_step(statement) == SQLITE_ROW && sqlite3_column_int(statement, 0) == 1;
  sqlite3_finalize(statement);
  sqlite3_close(database);
  return are_same;
}

}  // namespace quillon::bench
