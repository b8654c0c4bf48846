#include "accounts/name_services.h"

#include <dlfcn.h>
#include <nss.h>
#include <pwd.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <map>
#include <mutex>
#include <sstream>
#include <stdexcept>
#include <string>
#include <system_error>
#include <vector>

#include <fmt/format.h>

#include <quillon/platform/file_state.h>

#include "utils/file_text.h"

namespace quillon::platform {

namespace {

constexpr char kSwitchFile[] = "/etc/nsswitch.conf";
constexpr std::size_t kLargestSwitchFile = 1U << 20U;  // bytes
constexpr std::size_t kLargestRecord = 1U << 20U;      // bytes; a user's, with all of its texts

// The names of a line "passwd: NAME [ACTION...] NAME...", if it is one.
std::vector<std::string> ServicesIn(std::string line) {
  line.erase(std::min(line.find('#'), line.size()));
  const auto colon = line.find(':');
  if (colon == std::string::npos) {
    return {};
  }
  std::string database;
  std::istringstream(line.substr(0, colon)) >> database;
  if (database != "passwd") {
    return {};
  }
  bool is_action = false;
  for (char& c : line) {
    is_action = c == '[' || (is_action && c != ']');
    c = is_action || c == ']' ? ' ' : c;
  }
  std::vector<std::string> services;
  std::istringstream names(line.substr(colon + 1));
  for (std::string name; names >> name;) {
    services.push_back(name);
  }
  return services;
}

std::vector<std::string> ReadServices() {
  std::vector<std::string> services;
  std::istringstream text(ReadFileText(kSwitchFile, kLargestSwitchFile).text);
  for (std::string line; std::getline(text, line);) {
    const std::vector<std::string> more = ServicesIn(line);
    services.insert(services.end(), more.begin(), more.end());
  }
  std::erase(services, "files");
  return services;
}

// The file is read again when it has changed. Without one, there are no services but "files".
std::vector<std::string> ListServices() {
  static std::mutex mutex;
  static FileState state{{}};
  static std::vector<std::string> services;
  struct stat status {};
  if (::stat(kSwitchFile, &status) != 0 && errno != ENOENT) {
    throw FileError(errno, kSwitchFile);
  }
  const std::lock_guard lock(mutex);
  if (FileState(status) != state) {
    services = status.st_mode == 0 ? std::vector<std::string>() : ReadServices();
    state = FileState(status);
  }
  return services;
}

// The module of a service stays loaded, as it does when the C library itself asks it.
nss_getpwuid_r* FunctionOf(const std::string& service) {
  static std::mutex mutex;
  static std::map<std::string, nss_getpwuid_r*> functions;
  const std::lock_guard lock(mutex);
  nss_getpwuid_r*& function = functions[service];
  if (function == nullptr) {
    void* const module = ::dlopen(fmt::format("libnss_{}.so.2", service).c_str(), RTLD_NOW);
    const std::string symbol = fmt::format("_nss_{}_getpwuid_r", service);
    void* const found = module == nullptr ? nullptr : ::dlsym(module, symbol.c_str());
    if (found == nullptr) {
      throw std::runtime_error(fmt::format("name service [{}] of {} cannot be asked: {}", service,
                                           kSwitchFile, ::dlerror()));
    }
    function = reinterpret_cast<nss_getpwuid_r*>(found);
  }
  return function;
}

bool IsUnknownTo(const std::string& service, std::uint32_t uid) {
  nss_getpwuid_r* const get = FunctionOf(service);
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
      throw std::runtime_error(
          fmt::format("name service [{}] of {} has no answer: {}", service, kSwitchFile,
                      error == 0 ? "it is not available" : std::generic_category().message(error)));
    }
    buffer.resize(2 * buffer.size());
  }
}

}  // namespace

bool IsUnknownToNameServices(std::uint32_t uid) {
  const std::vector<std::string> services = ListServices();
  return std::all_of(services.begin(), services.end(),
                     [uid](const std::string& service) { return IsUnknownTo(service, uid); });
}

}  // namespace quillon::platform
