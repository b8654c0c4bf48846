#pragma once

#include <string>
#include <vector>

namespace quillon::platform {

/// An application that a user may not use.
struct RevokedPrivilege {
  std::string user;  ///< account name, as the note spells it
  std::string app;   ///< exact name of the application

  /// Whether it is the same note.
  friend bool operator==(const RevokedPrivilege& left, const RevokedPrivilege& right) {
    return left.user == right.user && left.app == right.app;
  }
};

// Every user may use every application of which it is not noted that he may not. These notes are
// kept by account name, whose letter case does not matter, in one file, which is changed as a whole
// or not at all; a file that is not there is one without notes. All of these throw `LogException`:
// `ERR_OPEN_FILE` when the file cannot be used, naming it and the line that does not parse. The
// ones that change it need root. Safe for use from several threads and processes.

/// All notes, in the order of the names of applications and then of users; of several about the
/// same user, one.
std::vector<RevokedPrivilege> ListRevokedPrivileges();

///@{
/// Gives back and takes away the privilege of every user. What already is so stays so, and so do
/// comments. `app` is 1 to 255 letters, digits, '.', '_' and '-'; a user's name has no ':', no
/// control character and no blank at an end; else `ERR_INTERNAL` is thrown and nothing is changed.
/// Whether there is such a user is not asked.
void GrantPrivilege(const std::vector<std::string>& users, const std::string& app);
void RevokePrivilege(const std::vector<std::string>& users, const std::string& app);
///@}

}  // namespace quillon::platform
