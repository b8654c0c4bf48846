#include "certificate.h"

#include <gnutls/crypto.h>
#include <gnutls/gnutls.h>
#include <gnutls/x509.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <ctime>
#include <filesystem>
#include <memory>
#include <stdexcept>
#include <system_error>
#include <type_traits>

#include <quillon/platform/host_name.h>
#include <quillon/platform/replace_file.h>

namespace quillon::webapid {

namespace {

constexpr char kCertificateFile[] = "certificate.pem";
constexpr char kKeyFile[] = "private-key.pem";
constexpr std::time_t kDay = 86400;
constexpr std::time_t kLife = 3650 * kDay;  // hosts pin its key: it should not change by itself

void Check(int result, const std::string& what) {
  if (result < 0) {
    throw std::runtime_error(what + ": " + gnutls_strerror(result));
  }
}

struct Text {
  Text() = default;
  Text(const Text&) = delete;
  Text& operator=(const Text&) = delete;
  ~Text() {
    if (datum.data != nullptr) {
      gnutls_memset(datum.data, 0, datum.size);
    }
    gnutls_free(datum.data);
  }
  std::string_view Get() const { return {reinterpret_cast<const char*>(datum.data), datum.size}; }
  gnutls_datum_t datum{};
};

void ReadFile(const std::string& path, Text& text) {
  Check(gnutls_load_file(path.c_str(), &text.datum), path);
}

// Root's, and nobody else's to change.
void MakeFolder(const std::string& path) {
  std::filesystem::create_directories(path);
  struct stat status {};
  if (::lstat(path.c_str(), &status) != 0 || !S_ISDIR(status.st_mode) || status.st_uid != 0 ||
      (status.st_mode & (S_IWGRP | S_IWOTH)) != 0) {
    throw std::runtime_error(path + ": must be a folder of root's that nobody else may write to");
  }
}

template <typename Handle, int (*Initialize)(Handle*), void (*Free)(Handle)>
class Owner {
 public:
  Owner() { Check(Initialize(&handle_), "certificate"); }
  Owner(const Owner&) = delete;
  Owner& operator=(const Owner&) = delete;
  ~Owner() { Free(handle_); }
  Handle Get() const { return handle_; }

 private:
  Handle handle_ = nullptr;
};
using Certificate = Owner<gnutls_x509_crt_t, gnutls_x509_crt_init, gnutls_x509_crt_deinit>;
using PrivateKey =
    Owner<gnutls_x509_privkey_t, gnutls_x509_privkey_init, gnutls_x509_privkey_deinit>;

void Describe(gnutls_x509_crt_t certificate, gnutls_x509_privkey_t key) {
  const std::string host = quillon::platform::HostName();
  std::array<unsigned char, 16> serial{};
  Check(gnutls_rnd(GNUTLS_RND_NONCE, serial.data(), serial.size()), "serial number");
  serial[0] &= 0x7f;  // a negative one is refused
  const std::time_t now = std::time(nullptr);
  const auto check = [](int result) { Check(result, "certificate"); };
  check(gnutls_x509_crt_set_version(certificate, 3));
  check(gnutls_x509_crt_set_serial(certificate, serial.data(), serial.size()));
  check(gnutls_x509_crt_set_activation_time(certificate, now - kDay));
  check(gnutls_x509_crt_set_expiration_time(certificate, now + kLife));
  check(gnutls_x509_crt_set_dn_by_oid(
      certificate, GNUTLS_OID_X520_COMMON_NAME, 0, host.data(),
      static_cast<unsigned int>(std::min<std::size_t>(host.size(), 64))));
  check(gnutls_x509_crt_set_subject_alt_name(certificate, GNUTLS_SAN_DNSNAME, host.data(),
                                             static_cast<unsigned int>(host.size()),
                                             GNUTLS_FSAN_SET));
  check(gnutls_x509_crt_set_basic_constraints(certificate, 0, -1));
  check(gnutls_x509_crt_set_key_usage(certificate, GNUTLS_KEY_DIGITAL_SIGNATURE));
  check(gnutls_x509_crt_set_key_purpose_oid(certificate, GNUTLS_KP_TLS_WWW_SERVER, 0));
  check(gnutls_x509_crt_set_key(certificate, key));
  check(gnutls_x509_crt_sign2(certificate, certificate, key, GNUTLS_DIG_SHA256, 0));
}

// The key last: without it the next start makes both again.
void MakeCertificate(const std::string& certificate_file, const std::string& key_file) {
  const PrivateKey key;
  Check(gnutls_x509_privkey_generate(key.Get(), GNUTLS_PK_ECDSA,
                                     GNUTLS_CURVE_TO_BITS(GNUTLS_ECC_CURVE_SECP256R1), 0),
        "private key");
  const Certificate certificate;
  Describe(certificate.Get(), key.Get());
  Text certificate_text;
  Text key_text;
  Check(gnutls_x509_crt_export2(certificate.Get(), GNUTLS_X509_FMT_PEM, &certificate_text.datum),
        "certificate");
  Check(gnutls_x509_privkey_export2(key.Get(), GNUTLS_X509_FMT_PEM, &key_text.datum),
        "private key");
  platform::ReplaceFile(certificate_file, certificate_text.Get(), 0644);
  platform::ReplaceFile(key_file, key_text.Get(), 0600);
}

void CheckThatTheyMatch(const Text& certificate, const Text& key, const std::string& what) {
  gnutls_certificate_credentials_t credentials = nullptr;
  Check(gnutls_certificate_allocate_credentials(&credentials), what);
  const int result = gnutls_certificate_set_x509_key_mem(credentials, &certificate.datum,
                                                         &key.datum, GNUTLS_X509_FMT_PEM);
  gnutls_certificate_free_credentials(credentials);
  Check(result, what + " and its private key");
}

}  // namespace

CertificateTexts LoadCertificate(const platform::Configuration::Web& web) {
  std::string certificate_file = web.certificate;
  std::string key_file = web.private_key;
  if (certificate_file.empty()) {
    MakeFolder(web.state_folder);
    certificate_file = web.state_folder + "/" + kCertificateFile;
    key_file = web.state_folder + "/" + kKeyFile;
    if (::access(certificate_file.c_str(), F_OK) != 0 || ::access(key_file.c_str(), F_OK) != 0) {
      MakeCertificate(certificate_file, key_file);
    }
  }
  Text certificate;
  Text key;
  ReadFile(certificate_file, certificate);
  ReadFile(key_file, key);
  CheckThatTheyMatch(certificate, key, certificate_file);
  return {std::string(certificate.Get()), platform::Secret(key.Get())};
}

}  // namespace quillon::webapid
