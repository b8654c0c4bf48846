#include "utils/salted_password.h"

#include <gsasl.h>
#include <openssl/evp.h>
#include <string.h>

#include <array>
#include <cstring>
#include <new>
#include <stdexcept>
#include <string>

#include "utils/gsasl_secret.h"

namespace quillon::platform {

namespace {

// Null for a password that is none.
GsaslSecret Prepare(const std::string& password) {
  if (password.find('\0') != std::string::npos) {
    return nullptr;
  }
  char* prepared = nullptr;
  // The flag forbids what its name says that it allows. Other clients by this library set it.
  const int result = ::gsasl_saslprep(password.c_str(), GSASL_ALLOW_UNASSIGNED, &prepared, nullptr);
  if (result == GSASL_MALLOC_ERROR) {
    throw std::bad_alloc();
  }
  return GsaslSecret(result == GSASL_OK ? prepared : nullptr);
}

}  // namespace

// Not by the login library itself, which takes three times as long for it.
std::optional<Secret> SaltedPassword(const Secret& password, std::string_view salt,
                                     unsigned iterations) {
  const GsaslSecret prepared = Prepare(password.Get());
  if (prepared == nullptr) {
    return std::nullopt;
  }
  std::array<unsigned char, GSASL_HASH_SHA256_SIZE> key{};
  const int is_done = ::PKCS5_PBKDF2_HMAC(
      prepared.get(), static_cast<int>(std::strlen(prepared.get())),
      reinterpret_cast<const unsigned char*>(salt.data()), static_cast<int>(salt.size()),
      static_cast<int>(iterations), ::EVP_sha256(), static_cast<int>(key.size()), key.data());
  if (is_done != 1) {
    throw std::runtime_error("PBKDF2 failed");
  }
  Secret salted({reinterpret_cast<const char*>(key.data()), key.size()});
  ::explicit_bzero(key.data(), key.size());
  return salted;
}

}  // namespace quillon::platform
