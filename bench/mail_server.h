#pragma once

#include <cstddef>

#include "results.h"

namespace quillon::bench {

/// Sizes of the measurements with Dovecot.
struct MailServerSizes {
  std::size_t users = 10'000;
  std::size_t fewer_users = 1000;
  int deliveries = 200;
  int rounds = 5;
};

inline constexpr MailServerSizes kQuickMailServer{100, 20, 5, 1};

/// Each method is one measurement, on a host whose mail server is Dovecot.
class MailServerBench {
 public:
  MailServerBench(const MailServerSizes& sizes, Results& results)
      : sizes_(sizes), results_(results) {}

  /// The report beside Dovecot's own.
  void Report();
  /// From the end of a delivery to the new figure in the report.
  void Delivery();

 private:
  void ReportOf(std::size_t users, double times_as_fast);

  const MailServerSizes sizes_;
  Results& results_;
};

}  // namespace quillon::bench
