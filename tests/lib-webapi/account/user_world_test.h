#pragma once

#include <algorithm>
#include <string>
#include <vector>

#include <velamailserver/account/user.h>

#include "recording_platform/world_test.h"

namespace velamailserver::webapi {

/// A test of a `User` object that was made before anything is recorded.
class UserWorldTest : public recording::WorldTest {
 protected:
  static std::vector<velasdk::VelaUser> Users(const std::vector<std::string>& names) {
    const recording::Pause pause;
    return {names.begin(), names.end()};
  }

  /// What looking for the mail directory of this uid finds from now on.
  void SetMaildir(unsigned int uid, const std::string& path, bool flag) {
    std::erase_if(world_.maildirs, [&](const auto& maildir) { return maildir.uid == uid; });
    account::BaseMaildir& maildir = world_.maildirs.emplace_back();
    maildir.uid = uid;
    maildir.path = path;
    maildir.flag = flag;
  }

  User user_ = MakeUser();

 private:
  static User MakeUser() {
    const recording::Pause pause;
    return User();
  }
};

}  // namespace velamailserver::webapi
