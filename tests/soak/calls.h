#pragma once

#include <string>

#include <fmt/format.h>

namespace quillon::soak {

/// A call's text; `params` is a JSON object.
inline std::string CallText(const char* api, const char* method, const std::string& params) {
  return fmt::format(R"({{"api":"{}","version":1,"method":"{}","params":{}}})", api, method,
                     params);
}

/// A call that needs no store.
inline const std::string kPlainCall = CallText("VELA.Core.Web.TARN", "get", "null");

}  // namespace quillon::soak
