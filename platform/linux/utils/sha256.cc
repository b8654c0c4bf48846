#include "utils/sha256.h"

#include <openssl/evp.h>
#include <openssl/hmac.h>
#include <openssl/sha.h>

#include <memory>
#include <stdexcept>

namespace quillon::platform {

namespace {

const unsigned char* Bytes(std::string_view text) {
  return reinterpret_cast<const unsigned char*>(text.data());
}

unsigned char* Bytes(std::string& text) { return reinterpret_cast<unsigned char*>(text.data()); }

// To look the algorithm up by its name takes longer than it takes itself.
const EVP_MD* Algorithm() {
  static const std::unique_ptr<EVP_MD, decltype(&::EVP_MD_free)> algorithm(
      ::EVP_MD_fetch(nullptr, "SHA256", nullptr), ::EVP_MD_free);
  return algorithm.get();
}

}  // namespace

std::string Sha256(std::string_view text) {
  std::string digest(SHA256_DIGEST_LENGTH, '\0');
  if (::EVP_Digest(text.data(), text.size(), Bytes(digest), nullptr, Algorithm(), nullptr) != 1) {
    throw std::runtime_error("SHA-256 failed");
  }
  return digest;
}

std::string HmacSha256(std::string_view key, std::string_view text) {
  std::string code(SHA256_DIGEST_LENGTH, '\0');
  if (::HMAC(Algorithm(), key.data(), static_cast<int>(key.size()), Bytes(text), text.size(),
             Bytes(code), nullptr) == nullptr) {
    throw std::runtime_error("HMAC-SHA-256 failed");
  }
  return code;
}

}  // namespace quillon::platform
