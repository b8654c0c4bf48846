#include "cred/records.h"

#include <new>
#include <string>

#include <vela/cred.h>

namespace {

// Without memory for it the setting is empty, which no request gets anywhere with.
template <typename Setting>
void Store(Setting& setting, const char* text) {
  setting = Setting();
  try {
    setting = Setting(text);
  } catch (const std::bad_alloc&) {
    // As said.
  }
}

}  // namespace

_tag_vela_cred_* VELACredAlloc() { return new (std::nothrow) _tag_vela_cred_; }

_tag_vela_cred_sess_* VELACredSessAlloc() { return new (std::nothrow) _tag_vela_cred_sess_; }

void VELACredFree(_tag_vela_cred_* cred) { delete cred; }

void VELACredSessFree(_tag_vela_cred_sess_* session) { delete session; }

void VELACredItemSetHost(_tag_vela_cred_* cred, const char* host) { Store(cred->host, host); }

void VELACredItemSetRemoteAccount(_tag_vela_cred_* cred, const char* account) {
  Store(cred->account, account);
}

void VELACredItemSetRemotePasswd(_tag_vela_cred_* cred, const char* password) {
  Store(cred->password, password);
}

void VELACredItemSetProtocol(_tag_vela_cred_* cred, const char* protocol) {
  Store(cred->protocol, protocol);
}

void VELACredItemSetPort(_tag_vela_cred_* cred, long port) { cred->port = port; }
