#pragma once

#include <string>

#include <velamailserver/visibility.h>

namespace velamailserver::webapi::tarn {

// The platform's quota on the mail server's own shared folder, "Quillon", as the host's API
// "VELA.Core.Quota" reports it at this moment: that of the subject itself, else the one that it has
// through a group. Both throw `LogException` with `ERR_RUN_WEBAPI` when the API fails, and what the
// JSON library throws for an answer of other types. Nothing is kept between calls; as safe for use
// from several threads as the API is.

/// The quota of a user by account name, in megabytes; 0 when there is none. A member of the
/// administrators group has none, and the API is not asked. What `velasdk::IsAdminGroupMember`
/// throws passes through.
VELAMAILSERVER_EXPORT unsigned long long GetUserQuillonSharedFolderQuotaMb(const std::string& user);

/// The quota of a group by name, in megabytes; 0 when there is none. The administrators group is
/// asked about like any other.
VELAMAILSERVER_EXPORT unsigned long long GetGroupQuillonSharedFolderQuotaMb(
    const std::string& group);

}  // namespace velamailserver::webapi::tarn
