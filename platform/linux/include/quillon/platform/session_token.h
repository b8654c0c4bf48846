#pragma once

#include <string>

#include <vela/cred.h>

namespace quillon::platform {

/// The token of a session, empty before a login. It is as good as the password for as long as the
/// session lasts, and gone when the record is freed.
const std::string& SessionToken(const _tag_vela_cred_sess_& session);

}  // namespace quillon::platform
