#include <quillon/platform/session_token.h>

#include "cred/records.h"

namespace quillon::platform {

const std::string& SessionToken(const _tag_vela_cred_sess_& session) { return session.token.Get(); }

}  // namespace quillon::platform
