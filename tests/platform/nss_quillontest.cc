#include "nss_quillontest.h"

#include <nss.h>
#include <pwd.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <cstdlib>

namespace quillon::test {

std::atomic<NameServiceAnswer> name_service_answer = NameServiceAnswer::kNotFound;
std::vector<gid_t> name_service_gids;
std::string name_service_user;
std::atomic<int> name_service_questions = 0;

namespace {

// More than anybody's first buffer holds.
constexpr std::size_t kRecordSize = 100000;

nss_status Answer(struct passwd* record, uid_t uid, char* buffer, std::size_t length, int* error) {
  if (length < kRecordSize) {
    *error = ERANGE;
    return NSS_STATUS_TRYAGAIN;
  }
  constexpr char kName[] = "found";
  for (std::size_t i = 0; i < sizeof(kName); ++i) {
    buffer[i] = kName[i];
  }
  char* const nothing = buffer + sizeof(kName) - 1;
  *record = {buffer, nothing, uid, uid, nothing, nothing, nothing};
  return NSS_STATUS_SUCCESS;
}

// The answer when nothing was found or the service does not work.
nss_status Fail(int* error) {
  switch (name_service_answer) {
    case NameServiceAnswer::kUnavailable:
      *error = ECONNREFUSED;
      return NSS_STATUS_UNAVAIL;
    case NameServiceAnswer::kUnavailableWithoutReason:
      return NSS_STATUS_UNAVAIL;
    case NameServiceAnswer::kUnavailableForNoSuch:
      *error = ESRCH;
      return NSS_STATUS_UNAVAIL;
    case NameServiceAnswer::kTryAgain:
      *error = EAGAIN;
      return NSS_STATUS_TRYAGAIN;
    case NameServiceAnswer::kNeverEnoughSpace:
      *error = ERANGE;
      return NSS_STATUS_TRYAGAIN;
    case NameServiceAnswer::kNever:
      while (true) {
        ::pause();
      }
    case NameServiceAnswer::kNotFound:
    case NameServiceAnswer::kFound:
      break;
  }
  return NSS_STATUS_NOTFOUND;
}

}  // namespace

}  // namespace quillon::test

extern "C" nss_status _nss_quillontest_getpwuid_r(uid_t uid, struct passwd* record, char* buffer,
                                                  std::size_t length, int* error) {
  using quillon::test::NameServiceAnswer;
  ++quillon::test::name_service_questions;
  return quillon::test::name_service_answer == NameServiceAnswer::kFound
             ? quillon::test::Answer(record, uid, buffer, length, error)
             : quillon::test::Fail(error);
}

extern "C" nss_status _nss_quillontest_initgroups_dyn(const char* user, gid_t skipped, long* start,
                                                      long* size, gid_t** gids, long /*limit*/,
                                                      int* error) {
  using quillon::test::NameServiceAnswer;
  ++quillon::test::name_service_questions;
  quillon::test::name_service_user = user;
  if (quillon::test::name_service_answer != NameServiceAnswer::kFound) {
    return quillon::test::Fail(error);
  }
  for (const gid_t gid : quillon::test::name_service_gids) {
    if (*start == *size) {
      *size *= 2;
      *gids =
          static_cast<gid_t*>(std::realloc(*gids, static_cast<std::size_t>(*size) * sizeof(gid_t)));
    }
    if (gid != skipped) {
      (*gids)[(*start)++] = gid;
    }
  }
  return NSS_STATUS_SUCCESS;
}
