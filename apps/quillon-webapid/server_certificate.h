#pragma once

#include <gnutls/abstract.h>
#include <gnutls/gnutls.h>

#include <deque>
#include <memory>
#include <string>

namespace quillon::webapid {

/// The certificate that new TLS connections are answered with.
class ServerCertificate {
 public:
  /// Throws `std::runtime_error` for texts that are no certificate chain and no key, and then the
  /// former one stays. That they belong together is for the caller to know.
  void Use(const std::string& certificate, const std::string& private_key);

  /// For `MHD_OPTION_HTTPS_CERT_CALLBACK`, which has no room for an object: there is one server.
  static int Retrieve(gnutls_session_t session, const gnutls_datum_t* issuers, int issuer_count,
                      const gnutls_pk_algorithm_t* algorithms, int algorithm_count,
                      gnutls_pcert_st** chain, unsigned int* chain_length,
                      gnutls_privkey_t* private_key);

 private:
  class Pair;
  // A handshake may still be using a former one.
  static std::deque<std::shared_ptr<Pair>> pairs_;
};

}  // namespace quillon::webapid
