#pragma once

#include <string>

#include <json/value.h>

#include <velamailserver/visibility.h>

namespace velamailserver::webapi {

/// Runs one WebAPI of this host in this process, as the user "admin", and returns its whole
/// response.
///
/// `version` is passed on unchecked. Throws `LogException` with `ERR_RUN_WEBAPI` when the response
/// is anything but an object whose "success" converts to true; the response's own error is not
/// carried. What the API runner itself throws passes through. As safe for use from several threads
/// as the API is.
VELAMAILSERVER_EXPORT Json::Value RunWebapi(const std::string& api, const std::string& method,
                                            const Json::Value& params, int version);

}  // namespace velamailserver::webapi
