#pragma once

extern "C" {

/// Whether the user may use the application: 1 or 0. `user` is an account name, in any letter case,
/// `app` an application's name, exactly. `reserved` is ignored. A user whom nothing forbids an
/// application may use it; nobody may when it cannot be found out what is forbidden, which is
/// logged. What another process has changed counts a moment later. A null name answers 0. Never
/// throws. Safe for use from several threads.
int VLIBAppPrivUserHas(const char* user, const char* app, const char* reserved);

}  // extern "C"
