#pragma once

#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include <velamailserver/visibility.h>

namespace quillon::platform {

/// A host of the cluster whose TLS key is known: it is spoken to on that port only while it has
/// that key, whoever signed its certificate, and over plain HTTP on no port. These hosts are kept
/// in the file `cluster.trusted_hosts` of the configuration, "HOST:PORT FINGERPRINT" on a line.
struct TrustedHost {
  /// A name, an IPv4 address or an IPv6 address in brackets; letter case does not matter.
  std::string host;
  int port;  ///< of its web server
  /// "sha256//" and the SHA-256 of the public key (its SubjectPublicKeyInfo) in base64.
  std::string fingerprint;
};

/// `what()` is one line that says what cannot be done and why.
class VELAMAILSERVER_EXPORT HostTrustError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

/// The fingerprint of the key that a TLS server offers, which proves nothing: it is for comparison
/// by somebody who knows the host's key. Waits at most 10 seconds. Throws `HostTrustError`.
std::string FetchHostKey(const std::string& host, int port);

/// The fingerprint that is remembered for a host; nothing when none is. Throws `HostTrustError`.
std::optional<std::string> RememberedHostKey(const std::string& host, int port);

/// Remembers the key of a host, in place of the one that was known. Throws `HostTrustError`.
void TrustHost(const std::string& host, int port, const std::string& fingerprint);

/// Forgets the key of a host; false when none was known. Throws `HostTrustError`.
bool ForgetHost(const std::string& host, int port);

/// All that are known, in the order of the file; none when there is no file. Throws
/// `HostTrustError` for a file that cannot be read, that others than its owner may write to, or
/// with a line that is not as it should be.
std::vector<TrustedHost> ListTrustedHosts();

}  // namespace quillon::platform
