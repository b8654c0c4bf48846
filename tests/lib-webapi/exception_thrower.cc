#include "lib-webapi/exception_thrower.h"

#include <velamailserver/log_exception.h>

namespace exception_thrower {

void ThrowLogException(const std::string& detail) {
  throw velamailserver::LogException(velamailserver::ERR_POPEN, detail, 3, "exception_thrower", 11);
}

const std::type_info& TypeOfLogException() { return typeid(velamailserver::LogException); }

}  // namespace exception_thrower
