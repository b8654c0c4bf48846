#include "cred/exchange.h"

#include <fcntl.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <cstddef>
#include <cstring>
#include <exception>
#include <memory>
#include <system_error>
#include <utility>

#include <quillon/platform/configuration.h>
#include <velamailserver/maillog.h>

#include "cred/curl_handle.h"
#include "cred/endpoint.h"
#include "cred/trusted_key.h"
#include "utils/file_descriptor.h"

namespace quillon::platform {

namespace {

constexpr char kSourceFile[] = "platform/linux/cred/exchange";
constexpr int kFailedLine = 41;
constexpr int kTooLargeLine = 47;

// A file on its way to a host.
class UploadedFile {
 public:
  // Throws `CurlError`. Neither a link nor a FIFO in the file's place can have anything else sent,
  // or hold us up.
  explicit UploadedFile(const std::string& path)
      : file_(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY)) {
    struct stat status {};
    if (!file_.IsOpen() || ::fstat(file_.Get(), &status) != 0) {
      Fail(path, errno == ELOOP ? "is a link" : std::generic_category().message(errno));
    }
    if (!S_ISREG(status.st_mode)) {
      Fail(path, "is not a regular file");
    }
    size_ = status.st_size;
  }

  void AttachTo(curl_mimepart* part) {
    CheckCurl(::curl_mime_data_cb(part, size_, Read, Seek, nullptr, this));
  }

 private:
  [[noreturn]] static void Fail(const std::string& path, const std::string& problem) {
    throw CurlError(CURLE_READ_ERROR, "cannot upload " + path + ": " + problem);
  }

  // The host was told the size: a file that has become longer is cut, a shorter one cannot be sent.
  static std::size_t Read(char* buffer, std::size_t size, std::size_t count, void* self) {
    auto& upload = *static_cast<UploadedFile*>(self);
    const auto wanted = std::min(size * count, static_cast<std::size_t>(upload.size_ - upload.at_));
    if (wanted == 0) {
      return 0;
    }
    ssize_t got = 0;
    do {
      got = ::pread(upload.file_.Get(), buffer, wanted, upload.at_);
    } while (got < 0 && errno == EINTR);
    if (got <= 0) {
      return CURL_READFUNC_ABORT;
    }
    upload.at_ += got;
    return static_cast<std::size_t>(got);
  }

  // For a request that is sent again because the connection was gone.
  static int Seek(void* self, curl_off_t offset, int origin) {
    auto& upload = *static_cast<UploadedFile*>(self);
    if (origin != SEEK_SET || offset < 0 || offset > upload.size_) {
      return CURL_SEEKFUNC_FAIL;
    }
    upload.at_ = offset;
    return CURL_SEEKFUNC_OK;
  }

  FileDescriptor file_;
  off_t size_ = 0;
  off_t at_ = 0;
};

// One of them is the token, which does not outlive the request.
struct WipeAndFree {
  void operator()(curl_slist* headers) const {
    for (const curl_slist* line = headers; line != nullptr; line = line->next) {
      ::explicit_bzero(line->data, std::strlen(line->data));
    }
    ::curl_slist_free_all(headers);
  }
};
using Headers = std::unique_ptr<curl_slist, WipeAndFree>;

void Add(Headers& headers, const std::string& line) {
  curl_slist* const longer = ::curl_slist_append(headers.get(), line.c_str());
  if (longer == nullptr) {
    throw CurlError(CURLE_OUT_OF_MEMORY);
  }
  static_cast<void>(headers.release());
  headers.reset(longer);
}

void AddToken(Headers& headers, const Secret& token) {
  const Secret line = Secret::Take("Authorization: Bearer " + token.Get());
  Add(headers, line.Get());
}

// One exchange: everything that its handle points to.
class Conversation {
 public:
  Conversation(const Question& question, const Endpoint& endpoint,
               const Configuration::Cluster& rules)
      : question_(question),
        endpoint_(endpoint),
        rules_(rules),
        key_(TrustedKeyOf(endpoint)),
        most_bytes_(static_cast<std::size_t>(rules.max_answer)) {
    Restrict();
    ProveHost();
    Prepare();
  }
  Conversation(const Conversation&) = delete;
  Conversation& operator=(const Conversation&) = delete;

  Answer Run() {
    const CURLcode code = handle_.Perform();
    if (is_too_large_) {
      maillog(4, "%s:%d the answer of %s is larger than %zu bytes (cluster.max_answer)",
              kSourceFile, kTooLargeLine, endpoint_.Name().c_str(), most_bytes_);
      return {};
    }
    if (code != CURLE_OK) {
      throw CurlError(code, endpoint_.Name() + ": " + Explain(code));
    }
    return {CURLE_OK, std::move(body_)};
  }

 private:
  bool MayBePlain() const { return rules_.allow_http && !key_; }

  // Redirects, cookies, .netrc and the like are off unless they are asked for.
  void Restrict() {
    handle_.Set(CURLOPT_PROTOCOLS_STR, MayBePlain() ? "http,https" : "https");
    handle_.Set(CURLOPT_PROXY, "");  // else the environment names one
    handle_.Set(CURLOPT_HTTP_VERSION, static_cast<long>(CURL_HTTP_VERSION_1_1));
    handle_.Set(CURLOPT_NOSIGNAL, 1L);
    handle_.Set(CURLOPT_OPENSOCKETFUNCTION, OpenSocket);
    // A name service that does not answer must not hold us up beyond the time-out.
    handle_.Set(CURLOPT_QUICK_EXIT, 1L);
    handle_.Set(CURLOPT_TIMEOUT, std::min(question_.timeout, kLongestTimeout));
    // What follows holds for a request without a limit, too.
    handle_.Set(CURLOPT_CONNECTTIMEOUT, kConnectTimeout);
    handle_.Set(CURLOPT_TCP_KEEPALIVE, 1L);
  }

  // The library would hand its connections on to every program that this process starts.
  static curl_socket_t OpenSocket(void* /*data*/, curlsocktype /*purpose*/,
                                  curl_sockaddr* address) {
    return ::socket(address->family, address->socktype | SOCK_CLOEXEC, address->protocol);
  }

  // The authorities are dispensed with where the key itself is known, and nowhere else.
  void ProveHost() {
    handle_.Set(CURLOPT_SSLVERSION, static_cast<long>(CURL_SSLVERSION_TLSv1_2));
    if (key_) {
      handle_.Set(CURLOPT_PINNEDPUBLICKEY, key_->c_str());
      handle_.Set(CURLOPT_SSL_VERIFYPEER, 0L);
      handle_.Set(CURLOPT_SSL_VERIFYHOST, 0L);
      handle_.Set(CURLOPT_CERTINFO, 1L);  // for the message about another key
      return;
    }
    handle_.Set(CURLOPT_SSL_VERIFYPEER, 1L);
    handle_.Set(CURLOPT_SSL_VERIFYHOST, 2L);
    handle_.Set(CURLOPT_CA_CACHE_TIMEOUT, kAuthoritiesLife);
    if (!rules_.ca_file.empty()) {
      handle_.Set(CURLOPT_CAINFO, rules_.ca_file.c_str());
      handle_.Set(CURLOPT_CAPATH, nullptr);
    }
  }

  void Prepare() {
    handle_.Set(CURLOPT_URL, question_.url.c_str());
    handle_.Set(CURLOPT_ERRORBUFFER, error_.data());
    handle_.Set(CURLOPT_WRITEFUNCTION, Receive);
    handle_.Set(CURLOPT_WRITEDATA, this);
    if (question_.body) {
      PreparePost();
    }
  }

  void PreparePost() {
    handle_.Set(CURLOPT_PREREQFUNCTION, BeforeSending);
    handle_.Set(CURLOPT_PREREQDATA, this);
    Add(headers_, "Expect:");  // nothing is gained by asking whether to send the body
    if (question_.upload) {
      PrepareUpload();
    } else {
      Add(headers_, "Content-Type: application/json");
      handle_.Set(CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(question_.body->size()));
      handle_.Set(CURLOPT_POSTFIELDS, question_.body->data());
    }
    if (!question_.token.IsEmpty()) {
      AddToken(headers_, question_.token);
    }
    handle_.Set(CURLOPT_HTTPHEADER, headers_.get());
  }

  void PrepareUpload() {
    form_.reset(::curl_mime_init(handle_.Get()));
    curl_mimepart* const request = AddPart("request", "application/json");
    CheckCurl(::curl_mime_data(request, question_.body->data(), question_.body->size()));
    upload_ = std::make_unique<UploadedFile>(question_.upload->path);
    upload_->AttachTo(AddPart(question_.upload->key.c_str(), "application/octet-stream"));
    handle_.Set(CURLOPT_MIMEPOST, form_.get());
  }

  curl_mimepart* AddPart(const char* name, const char* type) {
    curl_mimepart* const part = form_ == nullptr ? nullptr : ::curl_mime_addpart(form_.get());
    if (part == nullptr) {
      throw CurlError(CURLE_OUT_OF_MEMORY);
    }
    CheckCurl(::curl_mime_name(part, name));
    CheckCurl(::curl_mime_type(part, type));
    return part;
  }

  // When a connection that was used before breaks without an answer, the library sends the request
  // once more. But the host may have carried it out.
  static int BeforeSending(void* self, char* /*to*/, char* /*from*/, int /*to_port*/,
                           int /*from_port*/) {
    auto& conversation = *static_cast<Conversation*>(self);
    conversation.is_broken_ = std::exchange(conversation.is_sent_, true);
    return conversation.is_broken_ ? CURL_PREREQFUNC_ABORT : CURL_PREREQFUNC_OK;
  }

  // The library does not bound answers whose length it does not know beforehand.
  static std::size_t Receive(const char* data, std::size_t size, std::size_t count, void* self) {
    auto& conversation = *static_cast<Conversation*>(self);
    const std::size_t length = size * count;
    if (length > conversation.most_bytes_ - conversation.body_.size()) {
      conversation.is_too_large_ = true;
      return CURL_WRITEFUNC_ERROR;
    }
    try {
      conversation.body_.append(data, length);
    } catch (const std::exception&) {
      return CURL_WRITEFUNC_ERROR;
    }
    return length;
  }

  std::string Explain(CURLcode code) const {
    const std::string detail = error_[0] != '\0' ? error_.data() : ::curl_easy_strerror(code);
    const std::string remedy = "quillonctl host trust " + endpoint_.Name();
    switch (code) {
      case CURLE_SSL_PINNEDPUBKEYNOTMATCH:
        return "the key of this host has changed: it is " + KeyShown() + " and not " + *key_ +
               ", which is trusted, so nothing was sent; if the change is known to be right, "
               "run: " +
               remedy;
      case CURLE_PEER_FAILED_VERIFICATION:
        return detail + "; to trust the key of this host without an authority, run: " + remedy;
      case CURLE_UNSUPPORTED_PROTOCOL:
        return WhyNotPlain().value_or(detail);
      case CURLE_ABORTED_BY_CALLBACK:
        return is_broken_ ? "the connection broke before the answer; the call may have been "
                            "carried out"
                          : "the file to upload cannot be read to its end";
      default:
        return detail;
    }
  }

  // Nothing when it may be.
  std::optional<std::string> WhyNotPlain() const {
    if (endpoint_.protocol != "http" || MayBePlain()) {
      return std::nullopt;
    }
    return rules_.allow_http
               ? "the key of this host is trusted, so it is not spoken to over plain HTTP"
               : "plain HTTP is forbidden by cluster.allow_http";
  }

  std::string KeyShown() const {
    try {
      return ShownKey(handle_);
    } catch (const std::exception&) {
      return "another";
    }
  }

  static constexpr long kLongestTimeout = INT_MAX / 1000;  // seconds; the library's limit
  static constexpr long kConnectTimeout = 10;              // seconds, those of a probe
  static constexpr long kAuthoritiesLife = 60;             // seconds

  const Question& question_;
  const Endpoint& endpoint_;
  const Configuration::Cluster& rules_;
  const std::optional<std::string> key_;
  const std::size_t most_bytes_;
  std::string body_;
  bool is_too_large_ = false;
  bool is_sent_ = false;
  bool is_broken_ = false;
  std::array<char, CURL_ERROR_SIZE> error_{};
  Headers headers_;
  std::unique_ptr<UploadedFile> upload_;
  std::unique_ptr<curl_mime, decltype(&::curl_mime_free)> form_{nullptr, ::curl_mime_free};
  // Last, so that it is gone while everything that it points to is still there.
  CurlHandle handle_;
};

Answer Ask(const Question& question) {
  const auto endpoint = EndpointOf(question.url);
  if (!endpoint) {
    throw CurlError(CURLE_URL_MALFORMAT);
  }
  const auto configuration = CurrentConfiguration();
  return Conversation(question, *endpoint, configuration->cluster).Run();
}

Answer Failed(CURLcode error, const char* reason) {
  maillog(3, "%s:%d %s", kSourceFile, kFailedLine, reason);
  return {error, {}};
}

}  // namespace

Answer Exchange(const Question& question) {
  try {
    return Ask(question);
  } catch (const CurlError& error) {
    return Failed(error.code(), error.what());
  } catch (const std::exception& error) {
    // The configuration, the trusted keys or memory.
    return Failed(CURLE_FAILED_INIT, error.what());
  }
}

}  // namespace quillon::platform
