#pragma once

#include <cstddef>
#include <string>

namespace quillon::test {

/// Writes the files "passwd" and "group" of `users` accounts whose names are in no order, and the
/// file "names" with the name of every user.
void MakeAccounts(const std::string& folder, std::size_t users, unsigned int first_uid);

/// Makes a host in `folder`: `users` accounts and a configuration file "mailserver.toml" for it.
/// Its usage store is the Redis server at `redis_socket`, to which FOLDER/redis.sock becomes a
/// link.
void MakeHost(const std::string& folder, std::size_t users, const std::string& redis_socket);

/// Gives every user of the host a limit, a warning level and a usage.
void FillStores(const std::string& folder);

/// Gives the host `groups` groups besides, each with some of its users as members, a limit and a
/// warning level, and writes the file "group-names" with the name of every one.
void MakeGroups(const std::string& folder, std::size_t groups, std::size_t members = 2);

/// Makes an empty mail directory for every user of the host.
void MakeMaildirs(const std::string& folder);

/// Gives every user of the host the same number of messages, `messages` in all. Their names carry
/// their sizes or do not.
void MakeMail(const std::string& folder, std::size_t messages, bool names_carry_sizes);

/// Makes the users the owners of their mail.
void GiveMail(const std::string& folder);

/// Makes `maildirs` mail directories that belong to nobody, each with `messages` messages.
void MakeOwnerlessMail(const std::string& folder, std::size_t maildirs, std::size_t messages);

}  // namespace quillon::test
