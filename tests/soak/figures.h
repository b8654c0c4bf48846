#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

#include "system/web_server.h"

namespace quillon::soak {

/// What the kernel tells of a process.
struct Figures {
  double resident_mb;
  double proportional_mb;  ///< a page that it shares counts in part
  int descriptors;
  int threads;
};

/// Throws `std::runtime_error` for a process that has ended.
Figures FiguresOf(pid_t pid);

/// How long calls took, in milliseconds.
struct Latency {
  double p50;
  double p99;
};

/// Of times that it sorts; there has to be one.
Latency LatencyOf(std::vector<double>& times);

/// Of a plain call over one connection, while nobody else calls: of several batches the fastest,
/// because whatever else the machine does makes some slower and none faster.
Latency MeasureCalls(const test::WebServer& server, const std::string& token);

}  // namespace quillon::soak
