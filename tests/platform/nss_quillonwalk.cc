#include "nss_quillonwalk.h"

#include <grp.h>
#include <nss.h>

#include <cerrno>
#include <cstddef>
#include <cstring>

#include "nss_quillontest.h"

namespace quillon::test {

std::vector<WalkedGroup> walked_groups;
std::atomic<int> walks_begun = 0;
std::atomic<int> walks_open = 0;

namespace {

std::size_t position = 0;

// The texts of a record, in a buffer that may be too small for them.
class Texts {
 public:
  Texts(char* buffer, std::size_t length) : next_(buffer), end_(buffer + length) {}

  char* Add(const std::string& text) {
    if (static_cast<std::size_t>(end_ - next_) <= text.size()) {
      return nullptr;
    }
    char* const copy = next_;
    std::memcpy(copy, text.c_str(), text.size() + 1);
    next_ += text.size() + 1;
    return copy;
  }

 private:
  char* next_;
  char* const end_;
};

// False when the buffer is too small.
bool Write(const WalkedGroup& from, struct group* record, char* buffer, std::size_t length) {
  const std::size_t pointers = (from.members.size() + 1) * sizeof(char*);
  if (length < pointers) {
    return false;
  }
  auto** const members = reinterpret_cast<char**>(buffer);
  Texts texts(buffer + pointers, length - pointers);
  char* const name = texts.Add("walked");
  bool fits = name != nullptr;
  for (std::size_t i = 0; fits && i < from.members.size(); ++i) {
    members[i] = texts.Add(from.members[i]);
    fits = members[i] != nullptr;
  }
  members[from.members.size()] = nullptr;
  *record = {name, name, from.gid, members};
  return fits;
}

nss_status StatusOf(NameServiceAnswer answer) {
  return answer == NameServiceAnswer::kTryAgain || answer == NameServiceAnswer::kNeverEnoughSpace
             ? NSS_STATUS_TRYAGAIN
             : NSS_STATUS_UNAVAIL;
}

}  // namespace

}  // namespace quillon::test

extern "C" nss_status _nss_quillonwalk_setgrent(int /*stay_open*/) {
  quillon::test::position = 0;
  if (quillon::test::name_service_answer == quillon::test::NameServiceAnswer::kUnavailable) {
    errno = ECONNREFUSED;
    return NSS_STATUS_UNAVAIL;
  }
  ++quillon::test::walks_begun;
  ++quillon::test::walks_open;
  return NSS_STATUS_SUCCESS;
}

extern "C" nss_status _nss_quillonwalk_endgrent() {
  --quillon::test::walks_open;
  return NSS_STATUS_SUCCESS;
}

extern "C" nss_status _nss_quillonwalk_getgrent_r(struct group* record, char* buffer,
                                                  std::size_t length, int* error) {
  using quillon::test::NameServiceAnswer;
  const NameServiceAnswer answer = quillon::test::name_service_answer;
  if (answer != NameServiceAnswer::kFound && answer != NameServiceAnswer::kNotFound) {
    *error = answer == NameServiceAnswer::kNeverEnoughSpace ? ERANGE
             : answer == NameServiceAnswer::kTryAgain       ? EAGAIN
                                                            : 0;
    return quillon::test::StatusOf(answer);
  }
  if (quillon::test::position == quillon::test::walked_groups.size()) {
    return NSS_STATUS_NOTFOUND;
  }
  if (!quillon::test::Write(quillon::test::walked_groups[quillon::test::position], record, buffer,
                            length)) {
    *error = ERANGE;
    return NSS_STATUS_TRYAGAIN;
  }
  ++quillon::test::position;
  return NSS_STATUS_SUCCESS;
}
