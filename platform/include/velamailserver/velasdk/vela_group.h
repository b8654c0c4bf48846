#pragma once

#include <memory>
#include <string>

namespace velamailserver::velasdk {

struct AccountEntry;  // the implementation's own

/// A group of the host, as the account database described it when the object was built. A value
/// that is cheap to copy; safe for use from several threads.
class VelaGroup {
 public:
  /// The group of this name, in any letter case; a group that spells it exactly so is preferred.
  /// Throws `LogException` with `ERR_SDK_GROUP_GET` when there is none or the account database
  /// cannot tell.
  explicit VelaGroup(const std::string& name);
  /// The group with this gid. Throws `LogException` with `ERR_SDK_GROUP_GET_BY_GID` in the same
  /// way.
  explicit VelaGroup(unsigned int gid);

  /// The group's name, as the database stores it.
  std::string Name() const;
  /// The group's number, by which the quota store keeps limits.
  unsigned int Gid() const;

 private:
  std::shared_ptr<const AccountEntry> entry_;
};

}  // namespace velamailserver::velasdk
