#pragma once

#include <string>

#include <quillon/platform/configuration.h>
#include <quillon/platform/secret.h>

namespace quillon::webapid {

struct CertificateTexts {
  std::string certificate;  ///< PEM
  platform::Secret private_key;
};

/// Reads the configured certificate and its key. When none is configured: those in the state
/// folder, which are made, for this host's name, when they are not there. Throws
/// `std::runtime_error`, also when the two do not belong together.
CertificateTexts LoadCertificate(const platform::Configuration::Web& web);

}  // namespace quillon::webapid
