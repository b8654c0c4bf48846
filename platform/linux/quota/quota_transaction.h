#pragma once

#include <soci/soci.h>

namespace quillon::platform {

/// A transaction that is undone unless it was committed. SOCI's own cannot begin with a write lock.
class QuotaTransaction {
 public:
  QuotaTransaction(soci::session& session, const char* begin) : QuotaTransaction(session) {
    session_ << begin;
  }
  QuotaTransaction(const QuotaTransaction&) = delete;
  QuotaTransaction& operator=(const QuotaTransaction&) = delete;
  ~QuotaTransaction() {
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
  explicit QuotaTransaction(soci::session& session) : session_(session) {}

  soci::session& session_;
  bool is_committed_ = false;
};

}  // namespace quillon::platform
