#include <algorithm>

#include <fmt/format.h>

#include <velamailserver/account/maildir.h>
#include <velamailserver/account/no_owner_maildir.h>
#include <velamailserver/conf/smtp_ext.h>
#include <velamailserver/log_exception.h>

#include "recording_platform/world.h"

namespace velamailserver {

using recording::TheWorld;

namespace account {

namespace {

constexpr char kSourceFile[] = "recording_platform/mail_directories";
constexpr int kUnknownUidLine = 11;

BaseMaildir Find(unsigned int uid) {
  const std::vector<BaseMaildir>& maildirs = TheWorld().maildirs;
  const auto found = std::find_if(maildirs.begin(), maildirs.end(),
                                  [&](const BaseMaildir& maildir) { return maildir.uid == uid; });
  if (found == maildirs.end()) {
    throw LogException(ERR_SDK_USER_GET_BY_UID, fmt::format("no user {}", uid), 3, kSourceFile,
                       kUnknownUidLine);
  }
  return *found;
}

}  // namespace

bool BaseMaildir::Delete() const {
  TheWorld().Call(fmt::format("Delete({})", path));
  return TheWorld().delete_maildir;
}

Maildir::Maildir(unsigned int owner) {
  TheWorld().Call(fmt::format("Maildir(uid={})", owner));
  static_cast<BaseMaildir&>(*this) = Find(owner);
}

NoOwnerMaildir::NoOwnerMaildir(const std::string& directory) {
  TheWorld().Call(fmt::format("NoOwnerMaildir({})", directory));
  path = directory;
  if (const auto found = TheWorld().ownerless.find(path); found != TheWorld().ownerless.end()) {
    uid = found->second.uid;
    flag = found->second.flag;
    usage = found->second.usage;
    name = found->second.name;
  }
}

// The record learns the figure, which tells what was read before a recount from what was after.
void NoOwnerMaildir::RefreshCache() {
  TheWorld().Call(fmt::format("RefreshCache({})", path));
  usage = TheWorld().ownerless.at(path).usage;
}

}  // namespace account

namespace conf {

SmtpConf::SmtpConf() : maildir_path_(TheWorld().maildir_path) { TheWorld().Call("SmtpConf()"); }

SmtpExt::SmtpExt() { TheWorld().Call("SmtpExt()"); }

std::vector<velasdk::VelaUser> SmtpExt::EnumUsers() const {
  TheWorld().Call("EnumUsers()");
  const recording::Pause pause;
  std::vector<velasdk::VelaUser> users;
  for (const recording::Account& account : TheWorld().users) {
    users.emplace_back(account.id);
  }
  return users;
}

}  // namespace conf

}  // namespace velamailserver
