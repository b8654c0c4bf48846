#pragma once

#include <sys/types.h>

#include <atomic>
#include <string>
#include <vector>

namespace quillon::test {

/// What the name service "quillontest" answers about users and their groups. It is a module of the
/// C library's like any other; a program that is linked to it has it loaded under the name that is
/// looked for.
enum class NameServiceAnswer {
  kNotFound,
  kFound,  ///< a user "found" of the uid that is asked for; the groups below
  kUnavailable,
  kUnavailableWithoutReason,
  kUnavailableForNoSuch,  ///< as systemd's service says it of a user without groups
  kTryAgain,
  kNeverEnoughSpace,  ///< whatever buffer it gets is too small
  kNever,
};

extern std::atomic<NameServiceAnswer> name_service_answer;

/// The groups of every user, and the user whose groups it was last asked for.
extern std::vector<gid_t> name_service_gids;
extern std::string name_service_user;

/// How often it was asked.
extern std::atomic<int> name_service_questions;

}  // namespace quillon::test
