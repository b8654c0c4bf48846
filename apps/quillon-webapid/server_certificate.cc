#include "server_certificate.h"

#include <array>
#include <stdexcept>
#include <vector>

namespace quillon::webapid {

namespace {

constexpr std::size_t kMostKept = 4;
constexpr unsigned int kLongestChain = 16;

void Check(int result, const char* what) {
  if (result < 0) {
    throw std::runtime_error(std::string(what) + ": " + gnutls_strerror(result));
  }
}

gnutls_datum_t Datum(const std::string& text) {
  return {reinterpret_cast<unsigned char*>(const_cast<char*>(text.data())),
          static_cast<unsigned int>(text.size())};
}

}  // namespace

class ServerCertificate::Pair {
 public:
  Pair(const std::string& certificate, const std::string& private_key) : text_(certificate) {
    const gnutls_datum_t chain = Datum(certificate);
    const gnutls_datum_t key = Datum(private_key);
    Check(gnutls_privkey_init(&private_key_), "private key");
    length_ = kLongestChain;
    int result =
        gnutls_privkey_import_x509_raw(private_key_, &key, GNUTLS_X509_FMT_PEM, nullptr, 0);
    if (result >= 0) {
      result = gnutls_pcert_list_import_x509_raw(chain_.data(), &length_, &chain,
                                                 GNUTLS_X509_FMT_PEM, 0);
    }
    if (result < 0) {
      gnutls_privkey_deinit(private_key_);
      Check(result, "certificate");
    }
  }
  Pair(const Pair&) = delete;
  Pair& operator=(const Pair&) = delete;
  ~Pair() {
    for (unsigned int i = 0; i < length_; ++i) {
      gnutls_pcert_deinit(&chain_[i]);
    }
    gnutls_privkey_deinit(private_key_);
  }

  const std::string& text() const { return text_; }
  gnutls_pcert_st* chain() { return chain_.data(); }
  unsigned int length() const { return length_; }
  gnutls_privkey_t private_key() const { return private_key_; }

 private:
  std::string text_;
  std::array<gnutls_pcert_st, kLongestChain> chain_{};
  unsigned int length_ = 0;
  gnutls_privkey_t private_key_ = nullptr;
};

std::deque<std::shared_ptr<ServerCertificate::Pair>> ServerCertificate::pairs_;

void ServerCertificate::Use(const std::string& certificate, const std::string& private_key) {
  // One that has not changed must not push out another that a handshake is still using.
  if (!pairs_.empty() && pairs_.back()->text() == certificate) {
    return;
  }
  pairs_.push_back(std::make_shared<Pair>(certificate, private_key));
  if (pairs_.size() > kMostKept) {
    pairs_.pop_front();
  }
}

int ServerCertificate::Retrieve(gnutls_session_t /*session*/, const gnutls_datum_t* /*issuers*/,
                                int /*issuer_count*/, const gnutls_pk_algorithm_t* /*algorithms*/,
                                int /*algorithm_count*/, gnutls_pcert_st** chain,
                                unsigned int* chain_length, gnutls_privkey_t* private_key) {
  if (pairs_.empty()) {
    return -1;
  }
  Pair& pair = *pairs_.back();
  *chain = pair.chain();
  *chain_length = pair.length();
  *private_key = pair.private_key();
  return 0;
}

}  // namespace quillon::webapid
