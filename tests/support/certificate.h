#pragma once

#include <openssl/evp.h>
#include <openssl/x509.h>

#include <memory>
#include <string>

namespace quillon::test {

/// A private key and a certificate for it.
struct Certificate {
  std::shared_ptr<EVP_PKEY> key;
  std::shared_ptr<X509> certificate;

  std::string Pem() const;
  std::string KeyPem() const;
  /// "sha256//" and the SHA-256 of the public key in base64.
  std::string Fingerprint() const;
};

/// An authority that signs others' certificates.
Certificate MakeAuthority(const std::string& name = "Authority");

/// A server's certificate, for a name like "IP:127.0.0.1" or "DNS:example.org", signed by an
/// authority or else by itself, and valid from yesterday until `days` from now.
Certificate MakeCertificate(const std::string& name, const Certificate* authority = nullptr,
                            int days = 1);

}  // namespace quillon::test
