#pragma once

#include <memory>
#include <string>

namespace velamailserver::velasdk {

struct AccountEntry;  // the implementation's own

/// A user of the host, as the account database described it when the object was built. A value that
/// is cheap to copy; safe for use from several threads.
class VelaUser {
 public:
  /// The user of this name, in any letter case; an account that spells it exactly so is preferred.
  /// Throws `LogException` with `ERR_SDK_USER_GET` when there is none or the account database
  /// cannot tell.
  explicit VelaUser(const std::string& name);
  /// The user with this uid. Throws `LogException` with `ERR_SDK_USER_GET_BY_UID` in the same way.
  explicit VelaUser(unsigned int uid);

  /// The account name, as the database stores it.
  std::string Name() const;
  /// The canonical account name, as the database stores it.
  std::string RealName() const;
  /// The user's number, by which the quota store keeps limits.
  unsigned int Uid() const;

 private:
  std::shared_ptr<const AccountEntry> entry_;
};

}  // namespace velamailserver::velasdk
