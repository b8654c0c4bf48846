#pragma once

#include <curl/curl.h>

#include <optional>
#include <string>

#include <quillon/platform/secret.h>

namespace quillon::platform {

/// One request to a web server.
struct Question {
  struct Upload {
    std::string key;
    std::string path;
  };

  std::string url;
  std::optional<std::string> body;  ///< JSON, to be POSTed; else the request is a GET
  Secret token;                     ///< sent unless it is empty
  std::optional<Upload> upload;     ///< a local file that goes along with the body
  long timeout = 60;                ///< seconds in all, 0 for no limit
};

struct Answer {
  CURLcode error = CURLE_OK;
  std::string body;  ///< empty when it was larger than the configuration allows
};

/// Makes the request, under the rules of the configuration's `cluster`, by the identity that the
/// process has. Whatever the host answers counts, of any status; no answer is an error, which the
/// mail log has a line about. Never throws.
Answer Exchange(const Question& question);

}  // namespace quillon::platform
