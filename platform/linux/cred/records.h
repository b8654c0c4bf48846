#pragma once

#include <string>

#include <quillon/platform/secret.h>
#include <vela/cred.h>

// The names are those of the interface.
// NOLINTBEGIN(bugprone-reserved-identifier,cert-dcl37-c,cert-dcl51-cpp): given

struct _tag_vela_cred_ {
  std::string host;
  std::string account;
  quillon::platform::Secret password;
  std::string protocol;
  long port = 0;
};

struct _tag_vela_cred_sess_ {
  quillon::platform::Secret token;
};

// NOLINTEND(bugprone-reserved-identifier,cert-dcl37-c,cert-dcl51-cpp)
