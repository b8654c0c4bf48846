#pragma once

#include <velamailserver/visibility.h>

/// What a module of handlers defines: a shared object in the folder `web.handlers_folder`, which
/// every worker of the web server loads when it starts. It registers its APIs with
/// `VELA::APIRunner`; the worker calls it once, before it serves anything. An exception from it is
/// logged, and what it has registered before that stays. The package's own APIs cannot be replaced.
///
/// The module runs as root, in a process of one thread, and is never unloaded: to put a new one in
/// its place, rename a file over it and restart the server. Only accounts with the role "admin" may
/// call its APIs.
extern "C" VELAMAILSERVER_EXPORT void QuillonRegisterHandlers();
