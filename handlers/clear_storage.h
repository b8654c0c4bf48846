#pragma once

#include <json/value.h>

namespace quillon::handlers {

/// "Quillon.MailServer.User" "clear_storage".
Json::Value ClearStorage(const Json::Value& params);

}  // namespace quillon::handlers
