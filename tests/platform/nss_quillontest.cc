#include "nss_quillontest.h"

#include <nss.h>
#include <pwd.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>

namespace quillon::test {

std::atomic<NameServiceAnswer> name_service_answer = NameServiceAnswer::kNotFound;
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

}  // namespace

}  // namespace quillon::test

extern "C" nss_status _nss_quillontest_getpwuid_r(uid_t uid, struct passwd* record, char* buffer,
                                                  std::size_t length, int* error) {
  using quillon::test::NameServiceAnswer;
  ++quillon::test::name_service_questions;
  switch (quillon::test::name_service_answer) {
    case NameServiceAnswer::kNotFound:
      return NSS_STATUS_NOTFOUND;
    case NameServiceAnswer::kFound:
      return quillon::test::Answer(record, uid, buffer, length, error);
    case NameServiceAnswer::kUnavailable:
      *error = ECONNREFUSED;
      return NSS_STATUS_UNAVAIL;
    case NameServiceAnswer::kUnavailableWithoutReason:
      return NSS_STATUS_UNAVAIL;
    case NameServiceAnswer::kTryAgain:
      *error = EAGAIN;
      return NSS_STATUS_TRYAGAIN;
    case NameServiceAnswer::kNeverEnoughSpace:
      *error = ERANGE;
      return NSS_STATUS_TRYAGAIN;
    case NameServiceAnswer::kNever:
      break;
  }
  while (true) {
    ::pause();
  }
}
