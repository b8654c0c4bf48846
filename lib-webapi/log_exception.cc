#include <utility>

#include <velamailserver/log_exception.h>
#include <velamailserver/maillog.h>

namespace velamailserver {

namespace {

// Irregular wordings are deliberate: operators search for these texts.
const char* Message(ErrorCode code) {
  switch (code) {
    case ERR_INTERNAL:
      return "internal error";
    case ERR_INVALID_JSON_VALUE:
      return "invalid json value";
    case ERR_LSTAT_FILE:
      return "failed to lstat file";
    case ERR_POPEN:
      return "failed to popen";
    case ERR_OPEN_FILE:
      return "failed to open file";
    case ERR_RENAME_FILE:
      return "failed to rename file";
    case ERR_REDIS_DELETE_KEY:
      return "failed to delete key on redis";

    case ERR_SDK_FILE_CHECK_DIR:
      return "SDK VLIBCFileCheckDir failed";
    case ERR_SDK_FILE_SET_KEY_VALUE:
      return "SDK VLIBCFileSetKeyValue failed";
    case ERR_SDK_FILE_UNLOCK_BY_FILE:
      return "SDK VLIBCFileUnlockByFile failed";
    case ERR_SDK_FILE_GET_KEYS:
      return "SDK VLIBCFileGetKeys failed";
    case ERR_SDK_FILE_ENUM_DIR:
      return "SDK VLIBCFileEnumDir failed";
    case ERR_SDK_OUT_OF_MEMORY:
      return "SDK out of memory";
    case ERR_SDK_PID_FILE_CREATE:
      return "SDK VLIBCProcPidFileCreate failed";
    case ERR_SDK_RUN_AS:
      return "SDK failed to run as";
    case ERR_SDK_SZLIST_PUSH:
      return "SDK failed to VLIBCSzListPush";
    case ERR_SDK_FORK_CHILD:
      return "SDK failed to VLIBCProcForkChildNoWait";
    case ERR_SDK_EXECL:
      return "SDK failed to VLIBCExecl";

    case ERR_SDK_USER_ALLOC:
      return "SDK VELAUserAlloc failed";
    case ERR_SDK_USER_ENUM:
      return "SDK VLIBUserEnum failed";
    case ERR_SDK_USER_INFO_ENUM:
      return "SDK VLIBUserInfoEnum failed";
    case ERR_SDK_USER_INFO_ENUM_BY_SUBSTR:
      return "SDK VLIBUserInfoEnumBySubstr failed";
    case ERR_SDK_USER_GET_UGID:
      return "SDK VELAUserGetUGID failed";
    case ERR_SDK_USER_GET_BY_UID:
      return "SDK failed to VELAUserGetByUID";
    case ERR_SDK_USER_GET:
      return "SDK failed to VELAUserGet";
    case ERR_SDK_USER_REAL_NAME_GET:
      return "SDK failed to VLIBUserRealNameGet";
    case ERR_SDK_GET_SERVER_USER:
      return "SDK failed to get Quillon Server user";

    case ERR_SDK_GROUP_ALLOC:
      return "SDK VELAGroupAlloc failed";
    case ERR_SDK_GROUP_INFO_ENUM_BY_SUBSTR:
      return "SDK VLIBGroupInfoEnumBySubstr failed";
    case ERR_SDK_GROUP_IS_ADMIN_MEMBER:
      return "SDK VLIBGroupIsAdminGroupMem failed";
    case ERR_SDK_GROUP_GET:
      return "SDK failed to VELAGroupGet";
    case ERR_SDK_GROUP_GET_BY_GID:
      return "SDK failed to VELAGroupGetByGID";
    case ERR_SDK_GROUP_LIST_MEMBER:
      return "SDK failed to VELAGroupListMember";

    case ERR_DOMAIN_DB_UPGRADING:
      return "upgrading domain db";
    case ERR_DUPLICATE_DOMAIN_NAME:
      return "duplicate domain name";
    case ERR_INVALID_DOMAIN_NAME:
      return "invalid domain name";
    case ERR_LOAD_IMAP_POP3_SETTINGS:
      return "failed to load imap_pop3 settings";
    case ERR_LOAD_SMTP_SETTINGS:
      return "failed to load smtp settings";
    case ERR_LOAD_SECURITY_SETTINGS:
      return "failed to load security settings";
    case ERR_LOAD_MIMEDEFANG_SETTINGS:
      return "failed to load mimedefang settings";
    case ERR_RUN_WEBAPI:
      return "failed to run webapi";
    case ERR_CLUSTER_NOT_INITED:
      return "Quillon Server cluster is not inited";

    case ERR_BAD_DB_SESSION:
      return "bad db session";
    case ERR_DB_INSERT:
      return "failed to execute insert query";
    case ERR_DB_REPLACE:
      return "failed to execute replace query";
    case ERR_DB_DELETE:
      return "failed to execute delete query";
    case ERR_DB_UPDATE:
      return "failed to execute update query";
    case ERR_DB_MULTIPLE_QUERY:
      return "failed to execute multiple query";
    case ERR_DB_CREATE:
      return "failed to create db";
    case ERR_DB_UPGRADE:
      return "failed to upgrade db";
    case ERR_DB_SELECT:
      return "failed to execute select query";
  }
  return "unknown error";
}

}  // namespace

LogException::LogException(ErrorCode code, const std::string& detail, long priority,
                           std::string file, int line)
    : std::runtime_error(detail), code_(code), file_(std::move(file)), line_(line) {
  maillog(static_cast<int>(priority), "%s:%d (%d) %s: %s", file_.c_str(), line_, code_,
          Message(code_), what());
}

LogException::~LogException() = default;

}  // namespace velamailserver
