#pragma once

#include <string>

#include <vela/cred.h>

namespace quillon::platform {

/// `VELA::CredRequestUtil::Login` for a session as long as the host lets it be: for a token that is
/// handed on.
bool LogInForLong(_tag_vela_cred_* cred, _tag_vela_cred_sess_* session);

/// The token of a session, empty before a login. It is as good as the password for as long as the
/// session lasts, and gone when the record is freed.
const std::string& SessionToken(const _tag_vela_cred_sess_& session);

}  // namespace quillon::platform
