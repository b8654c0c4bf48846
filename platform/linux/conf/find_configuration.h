#pragma once

#include <memory>

#include <quillon/platform/configuration.h>

namespace quillon::platform {

/// As `CurrentConfiguration`, but logs nothing: what cannot be used throws `ConfigurationError`.
std::shared_ptr<const Configuration> FindConfiguration();

}  // namespace quillon::platform
