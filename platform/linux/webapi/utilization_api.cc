#include <algorithm>
#include <chrono>
#include <cstddef>
#include <exception>
#include <stdexcept>
#include <string>
#include <vector>

#include <quillon/platform/utilization.h>
#include <vela/api_runner.h>
#include <velamailserver/log_exception.h>
#include <velamailserver/utils/text.h>

#include "utils/file_text.h"
#include "webapi/host_apis.h"
#include "webapi/known_members.h"
#include "webapi/utilization.h"

namespace quillon::platform {

namespace {

constexpr char kSourceFile[] = "platform/linux/webapi/utilization_api";
constexpr int kNoSampleLine = 37;

// Thousands of processors and interfaces have room.
constexpr std::size_t kLargestFile = 16777216;

const std::vector<std::string>& AllResources() {
  static const std::vector<std::string> resources = {"cpu", "memory", "network"};
  return resources;
}

ProcTexts ReadProc() {
  const auto read = [](const char* path) { return ReadFileText(path, kLargestFile).text; };
  return {read("/proc/stat"), read("/proc/meminfo"), read("/proc/net/dev")};
}

// This clock of Linux begins at the start of the host.
std::chrono::nanoseconds Now() { return std::chrono::steady_clock::now().time_since_epoch(); }

Utilization& TheUtilization() {
  static Utilization utilization(ReadProc, Now);
  return utilization;
}

void RequireCurrent(const Json::Value& params) {
  if (params.isMember("type") && params["type"] != "current") {
    throw VELA::APIError(VELA::APIRunner::kBadParameters, "parameter [type] must be current");
  }
}

std::vector<std::string> ReadResources(const Json::Value& params) {
  const std::vector<std::string>& known = AllResources();
  if (!params.isMember("resource")) {
    return known;
  }
  const Json::Value& wanted = params["resource"];
  const bool is_known =
      wanted.isArray() && std::all_of(wanted.begin(), wanted.end(), [&](const Json::Value& item) {
        return item.isString() &&
               std::find(known.begin(), known.end(), item.asString()) != known.end();
      });
  if (!is_known) {
    throw VELA::APIError(
        VELA::APIRunner::kBadParameters,
        "parameter [resource] must be an array of " + velamailserver::Join(known, ", "));
  }
  std::vector<std::string> resources;
  for (const Json::Value& item : wanted) {
    resources.push_back(item.asString());
  }
  return resources;
}

}  // namespace

void SampleUtilization() {
  try {
    TheUtilization().Sample();
  } catch (const std::exception&) {
    // Who asks for the figures is told.
  }
}

Json::Value GetUtilization(const Json::Value& params) {
  RefuseUnknownMembers(params, {"type", "resource"});
  RequireCurrent(params);
  const std::vector<std::string> resources = ReadResources(params);
  try {
    return TheUtilization().Figures(resources);
  } catch (const std::runtime_error& error) {
    throw velamailserver::LogException(velamailserver::ERR_INTERNAL,
                                       std::string("cannot read the utilization: ") + error.what(),
                                       3, kSourceFile, kNoSampleLine);
  }
}

}  // namespace quillon::platform
