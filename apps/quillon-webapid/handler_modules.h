#pragma once

#include <string>

namespace quillon::webapid {

/// Loads every module of handlers (NAME.so) in a folder, in the order of their names, and lets each
/// register its APIs; see `QuillonRegisterHandlers`. Nothing for an empty `folder`.
///
/// They run as root, so the folder, every folder above it and the module itself must be root's, and
/// nobody else may write to them; a folder above may be sticky instead. Whatever is wrong with one
/// of them is logged, and the others are loaded all the same. Never throws for it.
void LoadHandlerModules(const std::string& folder);

}  // namespace quillon::webapid
