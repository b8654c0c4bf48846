#include "support/certificate.h"

#include <openssl/bio.h>
#include <openssl/bn.h>
#include <openssl/crypto.h>
#include <openssl/ec.h>
#include <openssl/pem.h>
#include <openssl/rand.h>
#include <openssl/x509v3.h>

#include <array>
#include <cstddef>
#include <stdexcept>

namespace quillon::test {

namespace {

constexpr long kDay = 86400;

template <typename Value>
Value Check(Value value) {
  if (!value) {
    throw std::runtime_error("a certificate cannot be made");
  }
  return value;
}

void Extend(X509* certificate, int nid, const std::string& value) {
  const std::unique_ptr<X509_EXTENSION, decltype(&::X509_EXTENSION_free)> extension(
      Check(::X509V3_EXT_conf_nid(nullptr, nullptr, nid, value.c_str())), ::X509_EXTENSION_free);
  Check(::X509_add_ext(certificate, extension.get(), -1));
}

Certificate Make(const std::string& common_name, int nid, const std::string& extension,
                 const Certificate* authority, int days) {
  Certificate made{{Check(EVP_EC_gen("P-256")), ::EVP_PKEY_free},
                   {Check(::X509_new()), ::X509_free}};
  X509* const certificate = made.certificate.get();
  long serial = 0;
  Check(::RAND_bytes(reinterpret_cast<unsigned char*>(&serial), sizeof(int)));
  Check(::X509_set_version(certificate, 2));
  Check(::ASN1_INTEGER_set(::X509_get_serialNumber(certificate), serial));
  Check(::X509_gmtime_adj(::X509_getm_notBefore(certificate), -kDay));
  Check(::X509_gmtime_adj(::X509_getm_notAfter(certificate), days * kDay - kDay / 2));
  Check(::X509_set_pubkey(certificate, made.key.get()));
  Check(::X509_NAME_add_entry_by_txt(::X509_get_subject_name(certificate), "CN", MBSTRING_ASC,
                                     reinterpret_cast<const unsigned char*>(common_name.c_str()),
                                     -1, -1, 0));
  const Certificate& issuer = authority == nullptr ? made : *authority;
  Check(::X509_set_issuer_name(certificate, ::X509_get_subject_name(issuer.certificate.get())));
  Extend(certificate, nid, extension);
  Check(::X509_sign(certificate, issuer.key.get(), ::EVP_sha256()));
  return made;
}

using Memory = std::unique_ptr<BIO, decltype(&::BIO_free)>;

Memory NewMemory() { return {Check(::BIO_new(::BIO_s_mem())), ::BIO_free}; }

std::string Text(const Memory& memory) {
  char* data = nullptr;
  const long size = BIO_get_mem_data(memory.get(), &data);
  return {data, static_cast<std::size_t>(size)};
}

}  // namespace

std::string Certificate::Pem() const {
  const Memory text = NewMemory();
  Check(::PEM_write_bio_X509(text.get(), certificate.get()));
  return Text(text);
}

std::string Certificate::KeyPem() const {
  const Memory text = NewMemory();
  Check(::PEM_write_bio_PrivateKey(text.get(), key.get(), nullptr, nullptr, 0, nullptr, nullptr));
  return Text(text);
}

std::string Certificate::Fingerprint() const {
  std::array<unsigned char, 32> digest{};
  std::array<unsigned char, 45> text{};
  unsigned char* bytes = nullptr;
  const int size = ::i2d_PUBKEY(key.get(), &bytes);
  Check(::EVP_Digest(bytes, static_cast<std::size_t>(size), digest.data(), nullptr, ::EVP_sha256(),
                     nullptr));
  OPENSSL_free(bytes);
  ::EVP_EncodeBlock(text.data(), digest.data(), static_cast<int>(digest.size()));
  return std::string("sha256//") + reinterpret_cast<const char*>(text.data());
}

Certificate MakeAuthority(const std::string& name) {
  return Make(name, NID_basic_constraints, "critical,CA:TRUE", nullptr, 1);
}

Certificate MakeCertificate(const std::string& name, const Certificate* authority, int days) {
  return Make("Server", NID_subject_alt_name, name, authority, days);
}

}  // namespace quillon::test
