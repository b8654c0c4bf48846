#pragma once

#include <gsasl.h>
#include <string.h>

#include <cstring>
#include <memory>

namespace quillon::platform {

struct WipeAndFreeGsaslText {
  void operator()(char* text) const {
    ::explicit_bzero(text, std::strlen(text));
    ::gsasl_free(text);
  }
};

/// A text that the login library has allocated and that nobody may find in memory later.
using GsaslSecret = std::unique_ptr<char, WipeAndFreeGsaslText>;

}  // namespace quillon::platform
