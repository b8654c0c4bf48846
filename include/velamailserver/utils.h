#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include <json/value.h>

#include <vela/cred.h>
#include <velamailserver/visibility.h>

/// @file
/// Calls of WebAPIs on other hosts of the cluster. A call that fails is told by its code and by the
/// mail log, never by an exception; exceptions of the JSON library, about documents that do not
/// hold what they should, pass through when everything was released.

/// Runs one WebAPI. `request` is an object with "api", "version", "method" and, optionally,
/// "params"; it is only read. `response` becomes the API's answer.
///
/// With an empty account and an empty password the API runs in this process, as "admin", and the
/// other arguments do not matter. Otherwise it runs on `host` (a name or an address, an IPv6
/// address in brackets), after logging in there as `account`: over `protocol` ("http" or "https")
/// on `port`, or, when that is -1, over what answers of "http" on 5000 and "https" on 5001.
/// `timeout` is how many seconds the host may take to answer: negative for 60, 0 for no limit.
///
/// `upload` is null, or an object with the text members "file_key" and "file_path": the content of
/// that file goes along, read as root.  The effective ids of the whole process are root's
/// meanwhile: no other thread may rely on them, and no two such calls may overlap.
///
/// Answers 0 when the API succeeded and also when it failed without saying why; the code in the
/// answer's "error" when it failed; 117 when it could not be called.
VELAMAILSERVER_EXPORT int WebAPIRequest(const std::string& host, const std::string& account,
                                        const std::string& password, const Json::Value& request,
                                        Json::Value& response, const std::string& protocol,
                                        int port, long timeout, const Json::Value& upload);

/// Fills `cred` with host, account and password, and with the protocol and the port on which the
/// host's web server answers: those that are given, or, for the port -1, "http" on 5000 if that
/// answers and "https" on 5001 otherwise. Both are always tried; each may take 10 seconds. Answers
/// 0, or -1 when nothing answers, with neither protocol nor port set.
VELAMAILSERVER_EXPORT int prepare_login(_tag_vela_cred_* cred, const std::string& host,
                                        const std::string& account, const std::string& password,
                                        const std::string& protocol, int port);

/// Whether something answers at PROTOCOL://HOST:PORT within 10 seconds, with whatever status.
VELAMAILSERVER_EXPORT bool IsPortActive(const std::string& host, const std::string& protocol,
                                        int port);

/// One call of a batch; the members are the arguments of `WebAPIRequest`.
struct WebAPIParams {
  ///@{
  /// An argument of `WebAPIRequest`.
  std::string host;
  std::string account;
  std::string password;
  std::string protocol;
  int port = -1;
  ///@}
  std::uint64_t reserved = 0;  ///< not read here
  Json::Value request;         ///< the call
  Json::Value response;        ///< its answer
};

/// Makes the calls one after the other, in order, each with 60 seconds to answer. Where the code is
/// not 0 the mail log has a line about it, and "success" in the response becomes false (in an empty
/// one, if it is no object); the other calls go on. Only a "success" that is true is one: a host
/// may answer a failure without a code, and then nothing is logged and the response stays as it
/// came. An exception ends the batch.
VELAMAILSERVER_EXPORT void multiWebAPIRequest(std::vector<WebAPIParams>& calls);

/// Sets the figures of a host in `out`, as whole numbers, and leaves its other members alone:
///   "cpu"               load in percent
///   "ram"               memory in use in percent
///   "network_upload"    bytes per second of all interfaces together; not set when the host
///   "network_download"  does not tell
///   "http_port"         port of its web server over plain HTTP; 5000 when it does not tell
/// Answers 0, or -1, with `out` as it was, when the load cannot be had.
VELAMAILSERVER_EXPORT int resourceInfoGetByWebAPI(const std::string& host,
                                                  const std::string& account,
                                                  const std::string& password, Json::Value& out);
