#pragma once

#include <string>
#include <typeinfo>

#include <velamailserver/visibility.h>

namespace exception_thrower {

/// Throws a LogException with ERR_POPEN from another shared object than the caller's.
[[noreturn]] VELAMAILSERVER_EXPORT void ThrowLogException(const std::string& detail);

/// What that shared object takes for the type of LogException.
VELAMAILSERVER_EXPORT const std::type_info& TypeOfLogException();

}  // namespace exception_thrower
