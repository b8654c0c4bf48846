#pragma once

#include <string>
#include <vector>

namespace quillon::bench {

/// Calls that a web server gets over connections that stay.
struct LoadOptions {
  std::string url;                  ///< PROTOCOL://HOST:PORT
  std::string token_file;           ///< what every call is authorised with
  std::vector<std::string> bodies;  ///< files with the calls, which are sent in turn
  int connections = 1;              ///< each has one call under way
  int seconds = 1;                  ///< how long it takes
  unsigned long requests = 0;       ///< hardly more than so many; 0: no limit
};

struct Load {
  unsigned long requests;
  double requests_per_second;
  double p99_ms;  ///< an answer in a hundred takes longer
};

/// Runs wrk with the script `script`. Throws when any call was not answered with success.
Load RunLoad(const std::string& script, const LoadOptions& options);

}  // namespace quillon::bench
