#pragma once

#include <memory>
#include <string>

#include "support/program.h"
#include "support/temporary_folder.h"

namespace quillon::test {

/// A PostgreSQL server of the test's own in a throw-away folder, on a unix socket. It answers when
/// the constructor returns. Whatever it cannot do throws, a missing PostgreSQL included.
class PostgresServer {
 public:
  PostgresServer();
  PostgresServer(const PostgresServer&) = delete;
  PostgresServer& operator=(const PostgresServer&) = delete;
  ~PostgresServer();

  /// Creates an empty database; answers its name.
  std::string CreateDatabase();
  /// Its superuser's "postgresql://" URL of a database. The server asks for no password and ignores
  /// the one that is given.
  std::string Url(const std::string& database, const std::string& password = "") const;

  /// Ends the server, breaking its connections, and begins it anew with the same databases.
  void Stop();
  void Start();
  /// It accepts connections and never answers, until it thaws. The connections that exist go on.
  void Freeze() const { program_->Freeze(); }
  void Thaw() const { program_->Thaw(); }

 private:
  // That programs of other users reach, too.
  std::string SocketFolder() const { return folder_ / "run"; }

  TemporaryFolder folder_;
  int databases_ = 0;
  std::unique_ptr<BackgroundProgram> program_;
};

}  // namespace quillon::test
