#pragma once

#include <string>
#include <vector>

#include <json/value.h>

#include <velamailserver/account/no_owner_maildir.h>
#include <velamailserver/visibility.h>

namespace velamailserver::webapi {

/// The mail directories that belong to nobody: their owner is a uid without a user.
///
/// An object is a snapshot of the disk. Every operation works on the directories that its
/// constructor, and what scanned again since, found. For use by one thread at a time. Failures of
/// its own are `LogException`s; whatever the platform throws passes through unchanged, but for the
/// refresh. Everything on disk is read and changed as root.
class VELAMAILSERVER_EXPORT NoOwner {
 public:
  /// Scans the disk, see `FindNoOwner`.
  NoOwner();

  /// Scans the maildir root and appends what it finds: a directory that was found before and is
  /// still there is then listed twice. Throws `LogException` with `ERR_POPEN` when "/bin/find"
  /// cannot be started. Should the command end early, what it had found until then is the result.
  void FindNoOwner();

  /// Recounts all directories of this object in a child process and returns at once. The figures
  /// are those of the directories that a later object finds. While another usage count runs, the
  /// child writes a line to the mail log and counts nothing.
  ///
  /// Returns in the child process, too! The caller ends the child as soon as this has returned or
  /// thrown in it, by `VELA::EndChildAfter` for example; it must not go on to do its parent's work.
  ///
  /// Throws `LogException` with `ERR_SDK_FORK_CHILD`, in the caller, when there is no child. In the
  /// child, exceptions that are no `std::runtime_error` pass through.
  void Refresh();

  /// A page of the directories, as
  ///   {"no_owner_list": [{"uid": …, "name": …, "usage": …}, …], "total": …}
  /// where "total" is how many there are on all pages, and "usage" is in bytes, 0 for a directory
  /// that was never counted.
  ///
  /// `offset` is the position of the page's first entry, from 0; beyond the end the page is empty.
  /// `limit` is the number of entries, negative for all the rest. A `keyword` that is not empty
  /// keeps the directories whose name holds it, in any case of the letters A to Z. They are sorted
  /// by usage when `sort_by` is "usage", by the bytes of the name otherwise, and descending when
  /// `sort_direction` is "DESC", ascending otherwise. Equal ones stay in the order of the scan,
  /// which is reversed with the rest, so that pages of one object neither repeat nor lose any.
  ///
  /// The first page after a scan that met a directory without a usage starts a refresh; the child
  /// process is ended in here. Throws `LogException` with `ERR_SDK_FORK_CHILD` when that cannot be
  /// started; the next page tries again.
  Json::Value List(unsigned long offset, long limit, const std::string& keyword,
                   const std::string& sort_by, const std::string& sort_direction);

  /// Copies of the directories of these uids, in the order of the scan; all of them without uids.
  std::vector<account::NoOwnerMaildir> List(const std::vector<unsigned int>& uids);

  /// Removes the directories of these uids that this object holds and scans again, see
  /// `FindNoOwner`: what it held stays, and what is still on disk is appended. A directory that
  /// cannot be removed does not keep the others from going. Should the platform throw, the rest
  /// stays and nothing is scanned.
  void RemoveStorage(const std::vector<unsigned int>& uids);

 private:
  bool need_refresh = false;  // a directory was found whose usage nobody has counted
  std::vector<account::NoOwnerMaildir> maildirs;
};

}  // namespace velamailserver::webapi
