#pragma once

#include <sys/stat.h>

#include <string>

/// The state of the path itself: a link is followed nowhere. Throws `std::system_error`.
struct stat StatusOf(const std::string& path);

/// Throws `Problem` unless the path is a folder or file of root's that nobody else may change. A
/// folder's group may make things in it when the sticky bit keeps it from removing those of others.
void RequireRootsOwn(const std::string& path);
