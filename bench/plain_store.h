#pragma once

#include <array>
#include <string>
#include <unordered_map>

namespace quillon::bench {

/// The ids of all names in a file in passwd or group format.
std::unordered_map<std::string, unsigned int> ReadIds(const std::string& path);

using BytesById = std::unordered_map<unsigned int, unsigned long long>;

/// What two statements select, each ids and bytes as decimal text, from an SQLite database.
std::array<BytesById, 2> SelectBytes(const std::string& path,
                                     const std::array<const char*, 2>& statements);

/// Whether a table has the same rows in two SQLite databases, and any.
bool HaveSameRows(const std::string& path, const std::string& other_path, const std::string& table);

}  // namespace quillon::bench
