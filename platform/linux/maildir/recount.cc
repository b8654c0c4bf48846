#include "maildir/recount.h"

#include "maildir/no_owner_maildir.h"
#include "maildir/usage_cache.h"

namespace quillon::platform {

void RunRecount(const std::function<void()>& work) {
  BeginRecount();
  work();
  std::vector<CacheKey> gone = ListOldUsage();
  std::erase_if(gone,
                [](const CacheKey& key) { return OpenOwnerlessMaildir(key.path).has_value(); });
  FinishRecount(gone);
}

}  // namespace quillon::platform
