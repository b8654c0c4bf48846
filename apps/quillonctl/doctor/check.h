#pragma once

#include <functional>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

/// What a check has found to be wrong. `what()` says what, `remedy()` what to do about it.
class Problem : public std::runtime_error {
 public:
  Problem(const std::string& what, std::string remedy)
      : std::runtime_error(what), remedy_(std::move(remedy)) {}

  const std::string& remedy() const { return remedy_; }

 private:
  std::string remedy_;
};

/// A check that does not apply here, or whose subject may be meant so. `what()` says why.
class Note : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

/// One point of the way from the accounts to the report.
struct Check {
  std::string name;
  /// Answers what was found to be good. Throws `Problem`, `Note`, or anything else, whose remedy is
  /// `remedy`.
  std::function<std::string()> run;
  std::string remedy;
  /// Earlier checks without whose success there is nothing to look at.
  std::vector<std::string> needs = {};
};
