#pragma once

#include <sys/types.h>

#include <string>

#include <quillon/platform/configuration.h>
#include <quillon/platform/file_descriptor.h>
#include <quillon/platform/secret.h>

namespace quillon::webapid {

/// What the supervisor reads for the front, which may not read any of it.
struct FrontSettings {
  platform::Configuration::Web web;  ///< the members that concern the front
  bool has_log = false;  ///< the mail log's file comes behind the settings; else it is syslog
  uid_t uid = 0;         ///< whom the front runs as
  gid_t gid = 0;
  bool has_http = false;  ///< which listening sockets come behind the first settings, in this order
  bool has_https = false;
  std::string certificate;  ///< PEM
  platform::Secret private_key;
  platform::Secret accounts;  ///< the text of the accounts file
};

/// The settings in a file without a name, which nobody can change. Secrets leave no copies behind.
/// Throws `std::system_error`.
platform::FileDescriptor WriteSettings(const FrontSettings& settings);
/// Throws `std::exception` for what `WriteSettings` did not write.
FrontSettings ReadSettings(int file);

}  // namespace quillon::webapid
