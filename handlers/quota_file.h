#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace quillon::handlers {

/// A row of a file of quotas, good only as long as there is no problem.
struct QuotaRow {
  std::size_t line = 0;             ///< in the file, from 1
  std::optional<std::string> name;  ///< as the file spells it; none if there are no three columns
  unsigned long long limit = 0;     ///< bytes
  unsigned long long warning = 0;   ///< bytes
  std::string problems;

  void AddProblem(const std::string& problem) {
    problems += (problems.empty() ? "" : "; ") + problem;
  }
};

/// The rows of a text in the form that "Quillon.MailServer.Quota" "import" takes. Throws `APIError`
/// with `kBadParameters` for a text without rows and for one with too many.
std::vector<QuotaRow> ParseQuotaFile(std::string_view text);

}  // namespace quillon::handlers
