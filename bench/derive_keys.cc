// derive-keys COUNT: does of so many logins only what a password costs.
#include <openssl/evp.h>

#include <array>
#include <string>

#include <quillon/platform/web_accounts.h>

#include "timing.h"

int main(int /*argc*/, char** argv) {
  const int count = std::stoi(argv[1]);
  const std::string password = "correct horse";
  const std::array<unsigned char, quillon::platform::kWebSaltBytes> salt{};
  std::array<unsigned char, 32> key{};
  quillon::bench::Time([&] {
    for (int i = 0; i < count; ++i) {
      PKCS5_PBKDF2_HMAC(password.data(), static_cast<int>(password.size()), salt.data(),
                        static_cast<int>(salt.size()), quillon::platform::kWebIterations,
                        EVP_sha256(), static_cast<int>(key.size()), key.data());
    }
  });
}
