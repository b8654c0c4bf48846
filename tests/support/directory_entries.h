#pragma once

#include <dirent.h>

#include <functional>

namespace quillon::test {

/// What happens to every directory entry before its reader sees it; may answer false with errno,
/// which is then what reading the directory fails with. Not called for what it reads itself.
extern std::function<bool(dirent64&)> on_directory_entry;

}  // namespace quillon::test
