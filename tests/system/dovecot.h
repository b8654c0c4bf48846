#pragma once

#include <memory>
#include <string>
#include <string_view>

#include "support/program.h"
#include "support/redis_server.h"
#include "support/temporary_folder.h"

namespace quillon::test {

/// Lets Dovecot make mail directories in FOLDER/spool/local, which need not exist, and all users
/// reach it and the usage store. Needs root.
void OpenToDovecot(const TemporaryFolder& folder, const RedisServer& usage_store);

/// A Dovecot of the test's own, with the settings in a folder that quillonctl has exported them to.
/// Mail is delivered by LMTP on a unix socket; IMAP is at a port of 127.0.0.1, where everybody's
/// password is "pass". It answers when the constructor returns. Needs root.
class Dovecot {
 public:
  explicit Dovecot(const std::string& settings);
  ~Dovecot();

  /// Its answer to a message of about so many bytes, "250 2.0.0 …" when it was taken, or to the
  /// recipient, when that was refused.
  std::string Deliver(const std::string& user, std::size_t bytes) const;

  /// Removes the user's first message over IMAP, and logs out.
  void RemoveFirstMessage(const std::string& user) const;
  /// Puts a message into the user's mailbox over IMAP; answers the server's line about it.
  std::string Append(const std::string& user, std::size_t bytes) const;

  std::string Log() const;
  /// What its other programs need to be told.
  const std::string& configuration_file() const { return configuration_; }

 private:
  bool Listens() const;
  std::string Socket() const { return (folder_ / "run") + "/lmtp"; }

  TemporaryFolder folder_;
  std::string configuration_;
  int imap_port_;
  std::unique_ptr<BackgroundProgram> program_;
};

}  // namespace quillon::test
