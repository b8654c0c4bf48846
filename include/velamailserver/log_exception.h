#pragma once

#include <cstdint>
#include <stdexcept>
#include <string>

#include <velamailserver/visibility.h>

namespace velamailserver {

/// Stable numbers of everything that can fail, shared by all programs of the mail server:
/// 1xxx general, 2xxx platform SDK calls (21xx users, 22xx groups), 3xxx configuration and cluster,
/// 4xxx databases. A number is never reused; a value outside this list is an "unknown error".
enum ErrorCode : std::int32_t {
  ERR_INTERNAL = 1001,
  ERR_INVALID_JSON_VALUE = 1002,
  ERR_LSTAT_FILE = 1003,
  ERR_POPEN = 1004,
  ERR_OPEN_FILE = 1005,
  ERR_RENAME_FILE = 1006,
  ERR_REDIS_DELETE_KEY = 1007,

  ERR_SDK_FILE_CHECK_DIR = 2002,
  ERR_SDK_FILE_SET_KEY_VALUE = 2003,
  ERR_SDK_FILE_UNLOCK_BY_FILE = 2004,
  ERR_SDK_FILE_GET_KEYS = 2005,
  ERR_SDK_FILE_ENUM_DIR = 2006,
  ERR_SDK_OUT_OF_MEMORY = 2007,
  ERR_SDK_PID_FILE_CREATE = 2008,
  ERR_SDK_RUN_AS = 2009,
  ERR_SDK_SZLIST_PUSH = 2010,
  ERR_SDK_FORK_CHILD = 2011,
  ERR_SDK_EXECL = 2012,

  ERR_SDK_USER_ALLOC = 2101,
  ERR_SDK_USER_ENUM = 2102,
  ERR_SDK_USER_INFO_ENUM = 2103,
  ERR_SDK_USER_INFO_ENUM_BY_SUBSTR = 2104,
  ERR_SDK_USER_GET_UGID = 2105,
  ERR_SDK_USER_GET_BY_UID = 2106,
  ERR_SDK_USER_GET = 2107,
  ERR_SDK_USER_REAL_NAME_GET = 2108,
  ERR_SDK_GET_SERVER_USER = 2109,

  ERR_SDK_GROUP_ALLOC = 2201,
  ERR_SDK_GROUP_INFO_ENUM_BY_SUBSTR = 2202,
  ERR_SDK_GROUP_IS_ADMIN_MEMBER = 2203,
  ERR_SDK_GROUP_GET = 2204,
  ERR_SDK_GROUP_GET_BY_GID = 2205,
  ERR_SDK_GROUP_LIST_MEMBER = 2206,

  ERR_DOMAIN_DB_UPGRADING = 3001,
  ERR_DUPLICATE_DOMAIN_NAME = 3002,
  ERR_INVALID_DOMAIN_NAME = 3003,
  ERR_LOAD_IMAP_POP3_SETTINGS = 3004,
  ERR_LOAD_SMTP_SETTINGS = 3005,
  ERR_LOAD_SECURITY_SETTINGS = 3006,
  ERR_LOAD_MIMEDEFANG_SETTINGS = 3007,
  ERR_RUN_WEBAPI = 3008,
  ERR_CLUSTER_NOT_INITED = 3101,

  ERR_BAD_DB_SESSION = 4001,
  ERR_DB_INSERT = 4002,
  ERR_DB_REPLACE = 4003,
  ERR_DB_DELETE = 4004,
  ERR_DB_UPDATE = 4005,
  ERR_DB_MULTIPLE_QUERY = 4006,
  ERR_DB_CREATE = 4007,
  ERR_DB_UPGRADE = 4008,
  ERR_DB_SELECT = 4009,
};

/// A failure that reports itself: the constructor writes one line to the mail log. It may be thrown
/// in one shared object and caught in another. Copies are independent; nothing is logged for a
/// copy.
class VELAMAILSERVER_EXPORT LogException : public std::runtime_error {
 public:
  /// Writes "FILE:LINE (CODE) MESSAGE: DETAIL" to the mail log at `priority` (a syslog priority; 3
  /// is LOG_ERR) and keeps everything but the priority. `detail` is what `what()` answers. An
  /// exception that is constructed and never thrown has logged all the same. Throws std::bad_alloc,
  /// before logging, when the texts cannot be kept.
  LogException(ErrorCode code, const std::string& detail, long priority, std::string file,
               int line);
  LogException(const LogException&) = default;
  LogException& operator=(const LogException&) = default;
  ~LogException() override;

  /// What has failed.
  ErrorCode code() const noexcept { return code_; }
  /// Source file of the throw site, as the thrower gave it.
  const std::string& file() const noexcept { return file_; }
  /// Source line of the throw site, as the thrower gave it.
  int line() const noexcept { return line_; }

 private:
  ErrorCode code_;
  std::string file_;
  int line_;
};

}  // namespace velamailserver
