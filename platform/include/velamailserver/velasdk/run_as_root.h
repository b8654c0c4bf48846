#pragma once

#include <functional>
#include <string>

namespace velamailserver::velasdk {

/// Runs `work` with root's effective uid and gid, and gives the process back the ones that it had,
/// on return and before an exception of `work` goes on to the caller. The real and the saved ids
/// stay as they are. The ids are those of the whole process: no other thread may rely on them
/// meanwhile. `label` names the section: in the mail log, at debug priority, and to a
/// platform that knows what a section is for. The one that recounts ownerless mail, "refresh no
/// owner usage", is how it learns that a recount has come to its end.
///
/// Throws `LogException` with `ERR_SDK_RUN_AS` when the process cannot become root, in which case
/// `work` is not run, and when it cannot become again what it was. May be called from within
/// `work`.
void RunAsRoot(const std::string& label, const std::function<void()>& work);

}  // namespace velamailserver::velasdk
