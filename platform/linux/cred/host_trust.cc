#include <openssl/crypto.h>
#include <openssl/pem.h>
#include <openssl/x509.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstddef>
#include <memory>
#include <optional>
#include <string_view>
#include <system_error>
#include <utility>

#include <fmt/format.h>

#include <quillon/platform/configuration.h>
#include <quillon/platform/host_trust.h>
#include <quillon/platform/replace_file.h>

#include "cred/curl_handle.h"
#include "cred/trusted_key.h"
#include "utils/base64.h"
#include "utils/change_lock.h"
#include "utils/file_text.h"
#include "utils/sha256.h"

namespace quillon::platform {

namespace {

constexpr std::string_view kPrefix = "sha256//";
constexpr std::size_t kDigestBytes = 32;
constexpr std::size_t kLargestFile = 1048576;
constexpr long kFetchTimeout = 10;  // seconds
// Programs that are not root's verify hosts, too.
constexpr mode_t kMode = 0644;

bool IsFingerprint(std::string_view text) {
  if (!text.starts_with(kPrefix)) {
    return false;
  }
  const auto digest = DecodeBase64(text.substr(kPrefix.size()));
  return digest && digest->size() == kDigestBytes;
}

Endpoint Checked(const std::string& host, int port) {
  auto endpoint = MakeEndpoint("https", host, port);
  if (!endpoint) {
    throw HostTrustError(fmt::format("{}:{} is not a host and a port", host, port));
  }
  return *std::move(endpoint);
}

// Comments and blank lines are kept as they are.
struct Line {
  std::string text;
  std::optional<TrustedHost> host;
};

std::optional<TrustedHost> ParseHost(std::string_view text) {
  const auto space = text.find(' ');
  const auto endpoint = EndpointOf("https://" + std::string(text.substr(0, space)));
  if (space == std::string_view::npos || !endpoint || endpoint->Name() != text.substr(0, space) ||
      !IsFingerprint(text.substr(space + 1))) {
    return std::nullopt;
  }
  return TrustedHost{endpoint->host, endpoint->port, std::string(text.substr(space + 1))};
}

auto IsAbout(const Endpoint& endpoint) {
  return [&endpoint](const Line& line) {
    return line.host && line.host->host == endpoint.host &&
           (line.host->port == endpoint.port || endpoint.protocol == "http");
  };
}

// The file with the keys. One that cannot be relied on is no reason to trust anybody, or to take
// authorities for good enough: it fails whatever needs it.
class TrustFile {
 public:
  explicit TrustFile(std::string path) : path_(std::move(path)) {
    FileText file;
    if (!Examine()) {
      return;
    }
    try {
      file = ReadFileText(path_, kLargestFile);
    } catch (const FileError& error) {
      throw HostTrustError(error.what());
    }
    std::string_view rest = file.text;
    while (!rest.empty()) {
      const auto end = std::min(rest.find('\n'), rest.size() - 1);
      AddLine(rest.substr(0, rest[end] == '\n' ? end : end + 1));
      rest.remove_prefix(end + 1);
    }
  }

  const std::string* KeyOf(const Endpoint& endpoint) const {
    const auto line = std::find_if(lines_.begin(), lines_.end(), IsAbout(endpoint));
    return line == lines_.end() ? nullptr : &line->host->fingerprint;
  }

  std::vector<TrustedHost> Hosts() const {
    std::vector<TrustedHost> hosts;
    for (const Line& line : lines_) {
      if (line.host) {
        hosts.push_back(*line.host);
      }
    }
    return hosts;
  }

  void Set(const Endpoint& endpoint, const std::string& fingerprint) {
    Line line{endpoint.Name() + ' ' + fingerprint,
              TrustedHost{endpoint.host, endpoint.port, fingerprint}};
    const auto known = std::find_if(lines_.begin(), lines_.end(), IsAbout(endpoint));
    if (known == lines_.end()) {
      lines_.push_back(std::move(line));
    } else {
      *known = std::move(line);
    }
  }

  bool Remove(const Endpoint& endpoint) { return std::erase_if(lines_, IsAbout(endpoint)) != 0; }

  void Write() const {
    std::string text;
    for (const Line& line : lines_) {
      text.append(line.text).append("\n");
    }
    try {
      ReplaceFile(path_, text, kMode);
    } catch (const FileError& error) {
      throw HostTrustError(error.what());
    }
  }

 private:
  [[noreturn]] void Fail(const std::string& problem) const {
    throw HostTrustError(path_ + ": " + problem);
  }

  // False when there is no file.
  bool Examine() const {
    struct stat status {};
    if (::lstat(path_.c_str(), &status) != 0) {
      if (errno == ENOENT) {
        return false;
      }
      Fail(std::generic_category().message(errno));
    }
    if (S_ISLNK(status.st_mode)) {
      Fail("is a link");
    }
    if (status.st_uid != 0 && status.st_uid != ::geteuid()) {
      Fail("belongs neither to root nor to this user");
    }
    if ((status.st_mode & (S_IWGRP | S_IWOTH)) != 0) {
      Fail("others than its owner may write to it, it is not used (chmod go-w it)");
    }
    return true;
  }

  void AddLine(std::string_view text) {
    Line line{std::string(text), std::nullopt};
    if (!text.empty() && text.front() != '#') {
      line.host = ParseHost(text);
      if (!line.host) {
        Fail(fmt::format("line {} is not \"HOST:PORT sha256//BASE64\"", lines_.size() + 1));
      }
      // Neither of two keys can be said to be the one.
      if (KeyOf({"https", line.host->host, line.host->port}) != nullptr) {
        Fail(fmt::format("line {} is about a host that has a line already", lines_.size() + 1));
      }
    }
    lines_.push_back(std::move(line));
  }

  std::string path_;
  std::vector<Line> lines_;
};

std::string TrustPath() { return CurrentConfiguration()->cluster.trusted_hosts; }

velamailserver::velasdk::FileLockGuard Lock(const std::string& path) {
  try {
    return LockForChange(path);
  } catch (const std::runtime_error& error) {
    throw HostTrustError(error.what());
  }
}

// Of a certificate in PEM.
std::string FingerprintOf(std::string_view certificate) {
  const std::unique_ptr<BIO, decltype(&::BIO_free)> text(
      ::BIO_new_mem_buf(certificate.data(), static_cast<int>(certificate.size())), ::BIO_free);
  const std::unique_ptr<X509, decltype(&::X509_free)> parsed(
      text == nullptr ? nullptr : ::PEM_read_bio_X509(text.get(), nullptr, nullptr, nullptr),
      ::X509_free);
  unsigned char* key = nullptr;
  const int size =
      parsed == nullptr ? -1 : ::i2d_X509_PUBKEY(::X509_get_X509_PUBKEY(parsed.get()), &key);
  const auto free_key = [](unsigned char* owned) { OPENSSL_free(owned); };
  const std::unique_ptr<unsigned char, decltype(free_key)> owner(key, free_key);
  if (size <= 0) {
    throw HostTrustError("the host's certificate cannot be read");
  }
  const std::string_view bytes(reinterpret_cast<const char*>(key), static_cast<std::size_t>(size));
  return std::string(kPrefix) + EncodeBase64(Sha256(bytes));
}

// The first certificate that a handle's connection was shown is the host's own.
std::string HostCertificate(const CurlHandle& handle) {
  constexpr std::string_view kCertificate = "Cert:";
  const curl_certinfo* chain = nullptr;
  CheckCurl(::curl_easy_getinfo(handle.Get(), CURLINFO_CERTINFO, &chain));
  if (chain != nullptr && chain->num_of_certs > 0) {
    for (const curl_slist* line = chain->certinfo[0]; line != nullptr; line = line->next) {
      const std::string_view text = line->data;
      if (text.starts_with(kCertificate)) {
        return std::string(text.substr(kCertificate.size()));
      }
    }
  }
  throw HostTrustError("the host shows no certificate");
}

}  // namespace

std::string ShownKey(const CurlHandle& handle) { return FingerprintOf(HostCertificate(handle)); }

std::optional<std::string> TrustedKeyOf(const Endpoint& endpoint) {
  const TrustFile file(TrustPath());
  const std::string* key = file.KeyOf(endpoint);
  return key == nullptr ? std::nullopt : std::optional(*key);
}

// Whoever answers is asked for a certificate, and nothing is sent to them.
std::string FetchHostKey(const std::string& host, int port) {
  const Endpoint endpoint = Checked(host, port);
  const std::string url = "https://" + endpoint.Name();
  std::array<char, CURL_ERROR_SIZE> error{};
  try {
    CurlHandle handle;
    handle.Set(CURLOPT_URL, url.c_str());
    handle.Set(CURLOPT_ERRORBUFFER, error.data());
    handle.Set(CURLOPT_PROTOCOLS_STR, "https");
    handle.Set(CURLOPT_PROXY, "");
    handle.Set(CURLOPT_NOSIGNAL, 1L);
    handle.Set(CURLOPT_QUICK_EXIT, 1L);
    handle.Set(CURLOPT_TIMEOUT, kFetchTimeout);
    handle.Set(CURLOPT_SSLVERSION, static_cast<long>(CURL_SSLVERSION_TLSv1_2));
    handle.Set(CURLOPT_SSL_VERIFYPEER, 0L);
    handle.Set(CURLOPT_SSL_VERIFYHOST, 0L);
    handle.Set(CURLOPT_CERTINFO, 1L);
    handle.Set(CURLOPT_FRESH_CONNECT, 1L);
    handle.Set(CURLOPT_FORBID_REUSE, 1L);
    handle.Set(CURLOPT_CONNECT_ONLY, 1L);
    CheckCurl(handle.Perform());
    return ShownKey(handle);
  } catch (const CurlError& failure) {
    throw HostTrustError(endpoint.Name() + ": " +
                         (error[0] != '\0' ? error.data() : failure.what()));
  } catch (const HostTrustError& failure) {
    throw HostTrustError(endpoint.Name() + ": " + failure.what());
  }
}

std::optional<std::string> RememberedHostKey(const std::string& host, int port) {
  return TrustedKeyOf(Checked(host, port));
}

void TrustHost(const std::string& host, int port, const std::string& fingerprint) {
  const Endpoint endpoint = Checked(host, port);
  if (!IsFingerprint(fingerprint)) {
    throw HostTrustError("\"" + fingerprint + "\" is not \"sha256//\" and a SHA-256 in base64");
  }
  const std::string path = TrustPath();
  const auto lock = Lock(path);
  TrustFile file(path);
  file.Set(endpoint, fingerprint);
  file.Write();
}

bool ForgetHost(const std::string& host, int port) {
  const Endpoint endpoint = Checked(host, port);
  const std::string path = TrustPath();
  const auto lock = Lock(path);
  TrustFile file(path);
  if (!file.Remove(endpoint)) {
    return false;
  }
  file.Write();
  return true;
}

std::vector<TrustedHost> ListTrustedHosts() { return TrustFile(TrustPath()).Hosts(); }

}  // namespace quillon::platform
