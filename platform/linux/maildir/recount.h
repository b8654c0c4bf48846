#pragma once

#include <functional>

namespace quillon::platform {

/// The label of the section in which the library recounts the ownerless mail directories, all of
/// those that it has found.
inline constexpr char kRecountSection[] = "refresh no owner usage";

/// Does the work of a recount. Once it has returned, the recount counts as brought to its end, and
/// what is cached about directories that are no longer ownerless mail directories is dropped.
/// Throws what the work throws, or `LogException` when the cache cannot be written.
void RunRecount(const std::function<void()>& work);

}  // namespace quillon::platform
