#pragma once

#include <atomic>

namespace quillon::test {

/// What the name service "quillontest" answers about users. It is a module of the C library's like
/// any other; a program that is linked to it has it loaded under the name that is looked for.
enum class NameServiceAnswer {
  kNotFound,
  kFound,  ///< a user "found" of the uid that is asked for
  kUnavailable,
  kUnavailableWithoutReason,
  kTryAgain,
  kNeverEnoughSpace,  ///< whatever buffer it gets is too small
  kNever,
};

extern std::atomic<NameServiceAnswer> name_service_answer;

/// How often it was asked.
extern std::atomic<int> name_service_questions;

}  // namespace quillon::test
