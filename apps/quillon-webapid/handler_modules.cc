#include "handler_modules.h"

#include <dlfcn.h>
#include <sys/stat.h>
#include <syslog.h>

#include <algorithm>
#include <cerrno>
#include <exception>
#include <filesystem>
#include <stdexcept>
#include <system_error>
#include <vector>

#include <quillon/platform/handler_module.h>
#include <velamailserver/maillog.h>

namespace quillon::webapid {

namespace {

using std::filesystem::path;

constexpr char kSourceFile[] = "apps/quillon-webapid/handler_modules";
constexpr int kBadFolderLine = 29;
constexpr int kBadModuleLine = 37;

struct stat StatusOf(const path& place) {
  struct stat status {};
  if (::lstat(place.c_str(), &status) != 0) {
    throw std::system_error(errno, std::generic_category(), place);
  }
  return status;
}

void RequireRootAlone(const path& place, const struct stat& status) {
  if (status.st_uid != 0) {
    throw std::runtime_error(place.string() + ": does not belong to root");
  }
  if ((status.st_mode & (S_IWGRP | S_IWOTH)) != 0) {
    throw std::runtime_error(place.string() + ": others than root may write to it");
  }
}

// From the root down: once a folder is known to be root's alone, nobody else can exchange what is
// in it. In a sticky folder nobody else can exchange what is root's.
void RequireRootsFolder(const path& folder) {
  path place;
  for (const path& name : folder) {
    place /= name;
    struct stat status = StatusOf(place);
    if (!S_ISDIR(status.st_mode)) {
      throw std::runtime_error(place.string() + ": is not a folder");
    }
    if (place != folder && (status.st_mode & S_ISVTX) != 0) {
      status.st_mode &= ~static_cast<mode_t>(S_IWGRP | S_IWOTH);
    }
    RequireRootAlone(place, status);
  }
}

std::vector<path> ModulesIn(const path& folder) {
  std::vector<path> modules;
  for (const auto& entry : std::filesystem::directory_iterator(folder)) {
    if (entry.path().extension() == ".so") {
      modules.push_back(entry.path());
    }
  }
  std::sort(modules.begin(), modules.end());
  return modules;
}

// Never unloaded: the registry keeps functions of it.
void Load(const path& module) {
  const struct stat status = StatusOf(module);
  if (!S_ISREG(status.st_mode)) {
    throw std::runtime_error(module.string() + ": is not a regular file");
  }
  RequireRootAlone(module, status);
  void* const object = ::dlopen(module.c_str(), RTLD_NOW | RTLD_LOCAL);
  void* const function = object == nullptr ? nullptr : ::dlsym(object, "QuillonRegisterHandlers");
  if (function == nullptr) {
    throw std::runtime_error(::dlerror());
  }
  reinterpret_cast<decltype(&QuillonRegisterHandlers)>(function)();
}

void LoadAll(const path& folder) {
  RequireRootsFolder(folder);
  for (const path& module : ModulesIn(folder)) {
    try {
      Load(module);
    } catch (const std::exception& error) {
      maillog(LOG_ERR, "%s:%d module of handlers not loaded: %s", kSourceFile, kBadModuleLine,
              error.what());
    }
  }
}

}  // namespace

void LoadHandlerModules(const std::string& folder) {
  if (folder.empty()) {
    return;
  }
  try {
    LoadAll(std::filesystem::canonical(folder));
  } catch (const std::exception& error) {
    maillog(LOG_ERR, "%s:%d no module of handlers loaded: %s", kSourceFile, kBadFolderLine,
            error.what());
  }
}

}  // namespace quillon::webapid
