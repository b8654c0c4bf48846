#pragma once

#include <chrono>
#include <string>

namespace quillon::webapid {

/// Tells the service manager that started this program how it is doing; without one, does nothing.
void Notify(const std::string& state);

/// How often the service manager wants to hear that all is well; 0: never.
std::chrono::milliseconds WatchdogInterval();

}  // namespace quillon::webapid
