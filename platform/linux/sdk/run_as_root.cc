#include <unistd.h>

#include <cerrno>
#include <string>
#include <system_error>

#include <velamailserver/log_exception.h>
#include <velamailserver/maillog.h>
#include <velamailserver/velasdk/run_as_root.h>

#include "maildir/recount.h"

namespace velamailserver::velasdk {

namespace {

constexpr char kSourceFile[] = "platform/linux/sdk/run_as_root";
constexpr int kRunLine = 24;
constexpr int kBecomeUidFailedLine = 37;
constexpr int kBecomeGidFailedLine = 43;
constexpr int kGiveUpFailedLine = 56;

// Leaves a real or saved id as it is.
constexpr uid_t kSameUid = static_cast<uid_t>(-1);
constexpr gid_t kSameGid = static_cast<gid_t>(-1);

[[noreturn]] void Fail(int line, const std::string& label, const char* problem, int error) {
  throw LogException(ERR_SDK_RUN_AS,
                     label + ": " + problem + ": " + std::generic_category().message(error), 3,
                     kSourceFile, line);
}

// Root's effective ids in place of the caller's.
class RootIds {
 public:
  // The uid first: only root may take a gid that is not its own.
  explicit RootIds(const std::string& label)
      : label_(label), caller_uid_(::geteuid()), caller_gid_(::getegid()) {
    if (::setresuid(kSameUid, 0, kSameUid) != 0) {
      Fail(kBecomeUidFailedLine, label_, "cannot become root", errno);
    }
    if (::setresgid(kSameGid, 0, kSameGid) != 0) {
      const int error = errno;
      GiveUp();
      Fail(kBecomeGidFailedLine, label_, "cannot take root's group", error);
    }
  }

  // The uid last, for the same reason; even without the gid, because whatever of root can be given
  // up is.
  void GiveUp() const {
    const int gid_error = ::setresgid(kSameGid, caller_gid_, kSameGid) == 0 ? 0 : errno;
    const int uid_error = ::setresuid(kSameUid, caller_uid_, kSameUid) == 0 ? 0 : errno;
    if (gid_error != 0 || uid_error != 0) {
      Fail(kGiveUpFailedLine, label_, "cannot give up root's rights",
           uid_error != 0 ? uid_error : gid_error);
    }
  }

 private:
  const std::string& label_;
  const uid_t caller_uid_;
  const gid_t caller_gid_;
};

}  // namespace

void RunAsRoot(const std::string& label, const std::function<void()>& work) {
  maillog(7, "%s:%d run as root: %s", kSourceFile, kRunLine, label.c_str());
  const RootIds root(label);
  try {
    if (label == quillon::platform::kRecountSection) {
      quillon::platform::RunRecount(work);
    } else {
      work();
    }
  } catch (...) {
    // Should this throw, its exception takes the place of the work's: that the process still has
    // rights that it must not have is what the caller needs to know, whatever else went wrong.
    root.GiveUp();
    throw;
  }
  root.GiveUp();
}

}  // namespace velamailserver::velasdk
