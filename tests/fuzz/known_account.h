#pragma once

#include <gsasl.h>

#include <array>
#include <string>

#include <quillon/platform/web_accounts.h>

#include "fuzz/fuzz.h"
#include "utils/base64.h"

namespace quillon::fuzz {

/// What a login makes of the known account's password: to come to this from a password is slow on
/// purpose.
inline std::string KnownSaltedPassword() { return std::string(GSASL_HASH_SHA256_SIZE, 's'); }

/// An account whose keys are those of that, an administrator's.
inline platform::WebAccount KnownAccount() {
  using Key = std::array<char, GSASL_HASH_SHA256_SIZE>;
  Key client_key{};
  Key server_key{};
  Key stored_key{};
  Require(::gsasl_scram_secrets_from_salted_password(
              GSASL_HASH_SHA256, KnownSaltedPassword().data(), client_key.data(), server_key.data(),
              stored_key.data()) == GSASL_OK,
          "there are keys");
  const auto text = [](const Key& key) { return platform::EncodeBase64({key.data(), key.size()}); };
  platform::WebAccount account;
  account.name = "boss";
  account.role = platform::WebRole::kAdmin;
  account.iterations = 4096;
  account.salt = platform::EncodeBase64(std::string(platform::kWebSaltBytes, 'x'));
  account.stored_key = platform::Secret(text(stored_key));
  account.server_key = platform::Secret(text(server_key));
  return account;
}

}  // namespace quillon::fuzz
