#include "accounts/name_services.h"

#include <dlfcn.h>
#include <grp.h>
#include <nss.h>
#include <pwd.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <new>
#include <sstream>
#include <stdexcept>
#include <string>
#include <string_view>
#include <system_error>
#include <unordered_map>
#include <utility>
#include <vector>

#include <fmt/format.h>

#include <quillon/platform/file_state.h>

#include "utils/file_text.h"

namespace quillon::platform {

namespace {

constexpr char kSwitchFile[] = "/etc/nsswitch.conf";
constexpr std::size_t kLargestSwitchFile = 1U << 20U;  // bytes
constexpr std::size_t kLargestRecord = 1U << 20U;      // bytes; a user's, with all of its texts
constexpr std::size_t kLargestGroup = 64U << 20U;      // bytes; a group's, with all of its members

// The names of the services for each kind of data, in the switch's order.
using Services = std::map<std::string, std::vector<std::string>, std::less<>>;

// Adds a line "passwd: NAME [ACTION...] NAME...", if it is one.
void AddLine(std::string line, Services& services) {
  line.erase(std::min(line.find('#'), line.size()));
  const auto colon = line.find(':');
  if (colon == std::string::npos) {
    return;
  }
  std::string database;
  std::istringstream first(line.substr(0, colon));
  first.exceptions(std::ios::badbit);
  first >> database;
  bool is_action = false;
  for (char& c : line) {
    is_action = c == '[' || (is_action && c != ']');
    c = is_action || c == ']' ? ' ' : c;
  }
  std::istringstream names(line.substr(colon + 1));
  names.exceptions(std::ios::badbit);
  std::vector<std::string>& all = services[database];
  for (std::string name; names >> name;) {
    if (name != "files") {
      all.push_back(name);
    }
  }
}

Services ReadServices() {
  Services services;
  std::istringstream text(ReadFileText(kSwitchFile, kLargestSwitchFile).text);
  // Else it just ends where memory does, and a service that is not asked knows of nobody.
  text.exceptions(std::ios::badbit);
  for (std::string line; std::getline(text, line);) {
    AddLine(line, services);
  }
  return services;
}

// The file is read again when it has changed. Without one, there are no services but "files".
std::shared_ptr<const Services> ListServices() {
  static std::mutex mutex;
  static FileState state{{}};
  static auto services = std::make_shared<const Services>();
  struct stat status {};
  if (::stat(kSwitchFile, &status) != 0 && errno != ENOENT) {
    throw FileError(errno, kSwitchFile);
  }
  const std::lock_guard lock(mutex);
  if (FileState(status) != state) {
    services = std::make_shared<const Services>(status.st_mode == 0 ? Services() : ReadServices());
    state = FileState(status);
  }
  return services;
}

const std::vector<std::string>& ServicesFor(const Services& services, std::string_view database) {
  static const std::vector<std::string> none;
  const auto found = services.find(database);
  return found != services.end() ? found->second : none;
}

// A function of the module of a service, null when it has none of that name. The module stays
// loaded, as it does when the C library itself asks it.
template <typename Function>
Function* FunctionIfAny(const std::string& service, const char* name) {
  static std::mutex mutex;
  static std::map<std::string, Function*> functions;
  const std::string symbol = fmt::format("_nss_{}_{}", service, name);
  const std::lock_guard lock(mutex);
  if (const auto found = functions.find(symbol); found != functions.end()) {
    return found->second;
  }
  void* const module = ::dlopen(fmt::format("libnss_{}.so.2", service).c_str(), RTLD_NOW);
  if (module == nullptr) {
    throw std::runtime_error(fmt::format("name service [{}] of {} cannot be asked: {}", service,
                                         kSwitchFile, ::dlerror()));
  }
  auto* const function = reinterpret_cast<Function*>(::dlsym(module, symbol.c_str()));
  functions.emplace(symbol, function);
  return function;
}

template <typename Function>
Function* FunctionOf(const std::string& service, const char* name) {
  if (auto* const function = FunctionIfAny<Function>(service, name)) {
    return function;
  }
  throw std::runtime_error(fmt::format("name service [{}] of {} cannot be asked: it has no {}",
                                       service, kSwitchFile, name));
}

// `error` is what the service says to be the reason.
[[noreturn]] void FailWithoutAnswer(const std::string& service, int error) {
  throw std::runtime_error(
      fmt::format("name service [{}] of {} has no answer: {}", service, kSwitchFile,
                  error == 0 ? "it is not available" : std::generic_category().message(error)));
}

bool IsUnknownTo(const std::string& service, std::uint32_t uid) {
  auto* const get = FunctionOf<nss_getpwuid_r>(service, "getpwuid_r");
  std::vector<char> buffer(1024);
  while (true) {
    struct passwd record {};
    int error = 0;
    const nss_status status = get(uid, &record, buffer.data(), buffer.size(), &error);
    if (status == NSS_STATUS_SUCCESS || status == NSS_STATUS_NOTFOUND) {
      return status == NSS_STATUS_NOTFOUND;
    }
    const bool is_too_small = status == NSS_STATUS_TRYAGAIN && error == ERANGE;
    if (!is_too_small || buffer.size() >= kLargestRecord) {
      FailWithoutAnswer(service, error);
    }
    buffer.resize(2 * buffer.size());
  }
}

// A list that a service may move to enlarge it.
class GidList {
 public:
  GidList() : gids_(static_cast<gid_t*>(std::calloc(kFirstSize, sizeof(gid_t)))) {
    if (gids_ == nullptr) {
      throw std::bad_alloc();
    }
  }
  GidList(const GidList&) = delete;
  GidList& operator=(const GidList&) = delete;
  ~GidList() { std::free(gids_); }

  nss_status Ask(nss_initgroups_dyn* ask, const std::string& user, int& error) {
    constexpr long kUnlimited = -1;
    // Of this group a service says nothing, because its caller knows it: no group has this gid.
    constexpr auto kNoGroup = static_cast<gid_t>(-1);
    return ask(user.c_str(), kNoGroup, &count_, &size_, &gids_, kUnlimited, &error);
  }

  const gid_t* begin() const { return gids_; }
  const gid_t* end() const { return gids_ + count_; }

 private:
  static constexpr long kFirstSize = 64;

  gid_t* gids_;
  long count_ = 0;
  long size_ = kFirstSize;
};

using Gids = std::vector<std::uint32_t>;
using GidsByUser = std::unordered_map<std::string, Gids>;

// Calls `take` with all groups of a service.
template <typename Take>
void WalkGroups(const std::string& service, const Take& take) {
  auto* const begin = FunctionOf<nss_setgrent>(service, "setgrent");
  auto* const next = FunctionOf<nss_getgrent_r>(service, "getgrent_r");
  auto* const end = FunctionOf<nss_endgrent>(service, "endgrent");
  errno = 0;
  if (begin(0) != NSS_STATUS_SUCCESS) {
    FailWithoutAnswer(service, errno);
  }
  std::vector<char> buffer(1U << 16U);
  while (true) {
    struct group record {};
    int error = 0;
    const nss_status status = next(&record, buffer.data(), buffer.size(), &error);
    if (status == NSS_STATUS_SUCCESS) {
      take(record);
    } else if (status == NSS_STATUS_TRYAGAIN && error == ERANGE && buffer.size() < kLargestGroup) {
      buffer.resize(2 * buffer.size());
    } else {
      end();
      if (status != NSS_STATUS_NOTFOUND) {
        FailWithoutAnswer(service, error);
      }
      return;
    }
  }
}

// Adds what a service has in its lists of members that cannot say which groups one user is in. All
// of them are walked through, for the questions of 50 ms at once: a report asks about thousands of
// users in a row.
void AddGidsByWalking(const std::string& service, const std::string& user, Gids& gids) {
  using Clock = std::chrono::steady_clock;
  constexpr std::chrono::milliseconds kKept{50};
  struct Walk {
    Clock::time_point ended_at;
    GidsByUser gids_of;
  };
  static std::mutex mutex;  // the position of a walk is the process's own, too
  static std::map<std::string, Walk> walks;

  const std::lock_guard lock(mutex);
  auto walk = walks.find(service);
  if (walk == walks.end() || Clock::now() - walk->second.ended_at > kKept) {
    GidsByUser gids_of;
    WalkGroups(service, [&](const struct group& group) {
      for (char* const* member = group.gr_mem; *member != nullptr; ++member) {
        gids_of[*member].push_back(group.gr_gid);
      }
    });
    walk = walks.insert_or_assign(service, Walk{Clock::now(), std::move(gids_of)}).first;
  }
  if (const auto found = walk->second.gids_of.find(user); found != walk->second.gids_of.end()) {
    gids.insert(gids.end(), found->second.begin(), found->second.end());
  }
}

void AddGidsOf(const std::string& service, const std::string& user, Gids& gids) {
  auto* const ask = FunctionIfAny<nss_initgroups_dyn>(service, "initgroups_dyn");
  if (ask == nullptr) {
    return AddGidsByWalking(service, user, gids);
  }
  GidList list;
  int error = 0;
  const nss_status status = list.Ask(ask, user, error);
  // systemd's service says so of a user without such groups, where nothing else tells it of any.
  const bool is_no_member = status == NSS_STATUS_UNAVAIL && error == ESRCH;
  if (status != NSS_STATUS_SUCCESS && status != NSS_STATUS_NOTFOUND && !is_no_member) {
    FailWithoutAnswer(service, error);
  }
  gids.insert(gids.end(), list.begin(), list.end());
}

}  // namespace

bool IsUnknownToNameServices(std::uint32_t uid) {
  const auto services = ListServices();
  const std::vector<std::string>& asked = ServicesFor(*services, "passwd");
  return std::all_of(asked.begin(), asked.end(),
                     [uid](const std::string& service) { return IsUnknownTo(service, uid); });
}

std::vector<std::uint32_t> ListGidsOfNameServices(const std::string& user) {
  const auto services = ListServices();
  const bool has_line = services->contains("initgroups");
  Gids gids;
  for (const std::string& service : ServicesFor(*services, has_line ? "initgroups" : "group")) {
    AddGidsOf(service, user, gids);
  }
  return gids;
}

}  // namespace quillon::platform
