#include "cred/endpoint.h"

#include <curl/curl.h>

#include <algorithm>
#include <memory>
#include <new>
#include <utility>

#include <fmt/format.h>

#include "utils/decimal.h"
#include "utils/letter_case.h"

namespace quillon::platform {

namespace {

using ParsedURL = std::unique_ptr<CURLU, decltype(&::curl_url_cleanup)>;

std::string PartOf(const ParsedURL& url, CURLUPart part) {
  char* text = nullptr;
  if (::curl_url_get(url.get(), part, &text, CURLU_DEFAULT_PORT) != CURLUE_OK) {
    return {};
  }
  const std::unique_ptr<char, decltype(&::curl_free)> owner(text, ::curl_free);
  return text;
}

std::string InLowerCase(std::string text) {
  std::transform(text.begin(), text.end(), text.begin(), LowerCase);
  return text;
}

}  // namespace

std::string Endpoint::Name() const { return fmt::format("{}:{}", host, port); }

std::optional<Endpoint> EndpointOf(const std::string& url) {
  const ParsedURL parsed(::curl_url(), ::curl_url_cleanup);
  if (parsed == nullptr) {
    throw std::bad_alloc();
  }
  if (url.find('\0') != std::string::npos ||
      ::curl_url_set(parsed.get(), CURLUPART_URL, url.c_str(), CURLU_DISALLOW_USER) != CURLUE_OK) {
    return std::nullopt;
  }
  Endpoint endpoint{PartOf(parsed, CURLUPART_SCHEME), InLowerCase(PartOf(parsed, CURLUPART_HOST)),
                    0};
  // The parser knows other schemes, and takes one slash or three for two.
  const std::string beginning = endpoint.protocol + "://";
  if ((endpoint.protocol != "http" && endpoint.protocol != "https") ||
      InLowerCase(url.substr(0, beginning.size())) != beginning || url[beginning.size()] == '/') {
    return std::nullopt;
  }
  const auto port = ParseDecimal<int>(PartOf(parsed, CURLUPART_PORT));
  if (endpoint.host.empty() || !port || *port < 1) {
    return std::nullopt;
  }
  endpoint.port = *port;
  return endpoint;
}

std::optional<Endpoint> MakeEndpoint(const std::string& protocol, const std::string& host,
                                     long port) {
  // What would end the host in a URL would also hide the port.
  if (host.find_first_of("/?#@\\") != std::string::npos) {
    return std::nullopt;
  }
  auto endpoint = EndpointOf(fmt::format("{}://{}:{}", protocol, host, port));
  return endpoint.has_value() && endpoint->port == port ? std::move(endpoint) : std::nullopt;
}

}  // namespace quillon::platform
