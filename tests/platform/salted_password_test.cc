#include "utils/salted_password.h"

#include <gsasl.h>

#include <array>
#include <string>
#include <string_view>

#include <gtest/gtest.h>

#include "utils/base64.h"

namespace quillon::platform {
namespace {

constexpr std::string_view kSalt("salt\0salt\xff", 10);
constexpr unsigned kIterations = 5;

// What a login library of somebody else's makes of it, which has to fit with ours.
std::string OfTheLibrary(const std::string& password) {
  std::array<char, GSASL_HASH_SHA256_SIZE> salted{};
  std::array<char, GSASL_HASH_SHA256_SIZE> unused{};
  EXPECT_EQ(::gsasl_scram_secrets_from_password(GSASL_HASH_SHA256, password.c_str(), kIterations,
                                                kSalt.data(), kSalt.size(), salted.data(),
                                                unused.data(), unused.data(), unused.data()),
            GSASL_OK);
  return {salted.data(), salted.size()};
}

TEST(SaltedPassword, IsWhatOtherClientsMakeOfIt) {
  for (const char* password : {"", "pencil", "with a space", "caf\xc3\xa9", "cafe\xcc\x81",
                               "no\xc2\xa0"
                               "break",
                               "soft\xc2\xad"
                               "hyphen",
                               "\xe2\x85\xa8"}) {
    const auto salted = SaltedPassword(Secret(password), kSalt, kIterations);
    ASSERT_TRUE(salted.has_value()) << password;
    EXPECT_EQ(salted->Get(), OfTheLibrary(password)) << password;
  }
}

TEST(SaltedPassword, IsTheOneOfTheStandardsExample) {  // RFC 7677, section 3
  const std::string salt = DecodeBase64("W22ZaJ0SNY7soEsUEjb6gQ==").value();
  EXPECT_EQ(EncodeBase64(SaltedPassword(Secret("pencil"), salt, 4096).value().Get()),
            "xKSVEDI6tPlSysH6mUQZOeeOp01r6B3fcJbodRPcYV0=");
}

TEST(SaltedPassword, IsNotMadeOfWhatIsNoPassword) {
  for (const std::string& password :
       {std::string("a\tb"), std::string("\x7f"), std::string("\xff\xfe"), std::string("\xc3"),
        std::string("cut\0off", 7), std::string("melting \xf0\x9f\xab\xa0")}) {
    EXPECT_FALSE(SaltedPassword(Secret(password), kSalt, kIterations).has_value());
  }
}

}  // namespace
}  // namespace quillon::platform
