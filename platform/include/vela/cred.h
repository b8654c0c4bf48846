#pragma once

#include <memory>
#include <string>

#include <json/value.h>

/// How to reach a host and as whom: host, account, password, protocol and port.
// NOLINTNEXTLINE(bugprone-reserved-identifier,cert-dcl37-c,cert-dcl51-cpp): given
struct _tag_vela_cred_;
/// A login to a host that succeeded, until it expires or is freed.
// NOLINTNEXTLINE(bugprone-reserved-identifier,cert-dcl37-c,cert-dcl51-cpp): given
struct _tag_vela_cred_sess_;

// Records are plain data, for use by one thread at a time. None of these functions throws.
extern "C" {

///@{
/// A new, empty record, which the caller frees; null when there is no memory for it.
_tag_vela_cred_* VELACredAlloc();
_tag_vela_cred_sess_* VELACredSessAlloc();
///@}

///@{
/// Frees a record, after wiping the secrets in it: the password, the session's token. Null is
/// allowed.
void VELACredFree(_tag_vela_cred_* cred);
void VELACredSessFree(_tag_vela_cred_sess_* session);
///@}

///@{
/// Each stores one setting and copies the text. `host` is a name, an IPv4 address or an IPv6
/// address in brackets; `protocol` is "http" or "https".
void VELACredItemSetHost(_tag_vela_cred_* cred, const char* host);
void VELACredItemSetRemoteAccount(_tag_vela_cred_* cred, const char* account);
void VELACredItemSetRemotePasswd(_tag_vela_cred_* cred, const char* password);
void VELACredItemSetProtocol(_tag_vela_cred_* cred, const char* protocol);
void VELACredItemSetPort(_tag_vela_cred_* cred, long port);
///@}

}  // extern "C"

namespace VELA {

/// What else concerns hosts' calls to each other.
class CredRequestUtil {
 public:
  /// Logs in to the host of `cred` and fills `session`, for 5 minutes: calls have to begin within
  /// them. Each side proves to the other that it knows the password, which does not travel. False
  /// when that fails; the mail log has the reason.
  static bool Login(_tag_vela_cred_* cred, _tag_vela_cred_sess_* session);
};

/// One HTTP request, for use by one thread. Every answer counts, whatever its status; a host that
/// refuses the connection, proves to be another than it should, or does not answer in time is a
/// failure.
class CredRequest {
 public:
  CredRequest();
  CredRequest(const CredRequest&) = delete;
  CredRequest& operator=(const CredRequest&) = delete;
  ~CredRequest();

  /// A call of a WebAPI on the host of `cred`, in `session`, for the caller to delete or to add to
  /// a queue. It copies what it needs. Null when it cannot be made.
  static CredRequest* CreateWebAPIRequest(const _tag_vela_cred_* cred,
                                          const _tag_vela_cred_sess_* session,
                                          const std::string& api, int version,
                                          const std::string& method, const Json::Value& params);

  /// Sends the content of a local file along, as the part `key`. The file is opened when the
  /// request runs, by the identity that the process has then; one that cannot be read, a link and
  /// what is no regular file fail the request.
  void SetUploadFile(const char* key, const char* path);

  /// False for a URL that is not http:// or https:// with a host.
  bool SetURL(const std::string& url);
  /// The URL as it was set.
  std::string GetURL() const;

  /// Seconds until the host must have answered, 0 for no limit; 60 when nothing is set.
  void SetDefaultTimeout(long seconds);
  /// The same for the answer to a call; false for a negative number.
  bool SetResponseTimeout(long seconds);

  /// Performs the request. `verify` asks for the host's certificate to be checked, which it is in
  /// any case; `retries` is how many more times a request that failed is tried. False when it
  /// failed.
  bool Process(bool verify, int retries);
  /// What the last `Process` failed with, as a number of the HTTP library; 0 when it did not.
  int GetError() const;

 private:
  friend class CredRequestMgr;
  class Transfer;
  std::unique_ptr<Transfer> transfer_;
};

/// A queue of requests.
class CredRequestMgr {
 public:
  CredRequestMgr();
  CredRequestMgr(const CredRequestMgr&) = delete;
  CredRequestMgr& operator=(const CredRequestMgr&) = delete;
  /// Deletes the requests that were added.
  ~CredRequestMgr();

  /// Takes the request over and answers its index, from 0. Negative when it cannot, and then the
  /// request stays the caller's.
  int AddCredRequest(CredRequest* request);

  /// Performs all requests, one after the other, and returns when each has its answer or has
  /// failed. A call is sent once: when the connection breaks before the answer, it has failed,
  /// although the host may have carried it out.
  void Run();

  /// The body of the answer to a request; empty when it failed, when its answer was larger than
  /// what the configuration allows, and when that is JSON nested more than 200 levels deep or with
  /// comments in it, which JSON has not.
  std::string GetResponse(int index);

 private:
  class Queue;
  std::unique_ptr<Queue> queue_;
};

}  // namespace VELA
