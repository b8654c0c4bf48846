#pragma once

#include <soci/soci.h>

namespace quillon::platform {

/// A transaction that is undone unless it was committed. SOCI's own cannot begin with a write lock.
class DatabaseTransaction {
 public:
  DatabaseTransaction(soci::session& session, const char* begin) : DatabaseTransaction(session) {
    session_ << begin;
  }
  DatabaseTransaction(const DatabaseTransaction&) = delete;
  DatabaseTransaction& operator=(const DatabaseTransaction&) = delete;
  ~DatabaseTransaction() {
    if (!is_committed_) {
      try {
        session_ << "ROLLBACK";
      } catch (const soci::soci_error&) {
        // The database has done so itself, or the connection is gone and the transaction with it.
      }
    }
  }

  void Commit() {
    session_ << "COMMIT";
    is_committed_ = true;
  }

 private:
  // Delegated to, so that a begin that fails half-way is undone as well.
  explicit DatabaseTransaction(soci::session& session) : session_(session) {}

  soci::session& session_;
  bool is_committed_ = false;
};

}  // namespace quillon::platform
