// call-in-a-straight-line WORLD PROTOCOL PORT CALLS: the same exchanges by one handle of libcurl's.
#include <curl/curl.h>
#include <openssl/crypto.h>
#include <openssl/evp.h>
#include <openssl/hmac.h>
#include <openssl/rand.h>
#include <openssl/sha.h>

#include <array>
#include <cstdlib>
#include <fstream>
#include <iostream>
#include <string>

#include "timing.h"

namespace {

using Digest = std::array<unsigned char, SHA256_DIGEST_LENGTH>;

[[noreturn]] void Fail(const std::string& what) {
  std::cerr << "call-in-a-straight-line: " << what << '\n';
  std::exit(EXIT_FAILURE);
}

std::string ReadLine(const std::string& path) {
  std::string line;
  std::ifstream file(path);
  std::getline(file, line);
  return line;
}

const unsigned char* Bytes(const std::string& text) {
  return reinterpret_cast<const unsigned char*>(text.data());
}

std::string ToBase64(const unsigned char* data, std::size_t size) {
  std::string text((size + 2) / 3 * 4 + 1, '\0');
  text.resize(static_cast<std::size_t>(EVP_EncodeBlock(
      reinterpret_cast<unsigned char*>(text.data()), data, static_cast<int>(size))));
  return text;
}

std::string FromBase64(const std::string& text) {
  std::string data(text.size(), '\0');
  const int size = EVP_DecodeBlock(reinterpret_cast<unsigned char*>(data.data()), Bytes(text),
                                   static_cast<int>(text.size()));
  const auto padding = text.size() - (text.find_last_not_of('=') + 1);
  data.resize(static_cast<std::size_t>(size) - padding);
  return data;
}

Digest Hmac(const Digest& key, const std::string& text) {
  Digest digest{};
  HMAC(EVP_sha256(), key.data(), static_cast<int>(key.size()), Bytes(text), text.size(),
       digest.data(), nullptr);
  return digest;
}

// The text member of that name in a JSON text that has only one.
std::string Member(const std::string& json, const std::string& name) {
  const auto at = json.find('"' + name + '"');
  const auto start = at == std::string::npos ? at : json.find('"', at + name.size() + 2);
  const auto end = start == std::string::npos ? start : json.find('"', start + 1);
  if (end == std::string::npos) {
    Fail("no \"" + name + "\" in " + json);
  }
  return json.substr(start + 1, end - start - 1);
}

// An attribute of a SCRAM message.
std::string Attribute(const std::string& message, const std::string& name) {
  const auto at = message.find(name + '=');
  return message.substr(at + 2, message.find(',', at) - at - 2);
}

std::size_t Append(const char* data, std::size_t size, std::size_t count, void* text) {
  static_cast<std::string*>(text)->append(data, size * count);
  return size * count;
}

std::string Perform(CURL* handle, const std::string& url) {
  std::string answer;
  curl_easy_setopt(handle, CURLOPT_URL, url.c_str());
  curl_easy_setopt(handle, CURLOPT_WRITEFUNCTION, &Append);
  curl_easy_setopt(handle, CURLOPT_WRITEDATA, &answer);
  long status = 0;
  if (curl_easy_perform(handle) != CURLE_OK ||
      curl_easy_getinfo(handle, CURLINFO_RESPONSE_CODE, &status) != CURLE_OK || status != 200) {
    Fail(url + ": " + answer);
  }
  return answer;
}

std::string Get(CURL* handle, const std::string& url) {
  curl_easy_setopt(handle, CURLOPT_HTTPGET, 1L);
  return Perform(handle, url);
}

std::string Post(CURL* handle, const std::string& url, const std::string& body,
                 const std::string& token) {
  curl_slist* headers = curl_slist_append(nullptr, "Content-Type: application/json");
  headers = curl_slist_append(headers, "Expect:");
  if (!token.empty()) {
    headers = curl_slist_append(headers, ("Authorization: Bearer " + token).c_str());
  }
  curl_easy_setopt(handle, CURLOPT_POST, 1L);
  curl_easy_setopt(handle, CURLOPT_POSTFIELDSIZE, static_cast<long>(body.size()));
  curl_easy_setopt(handle, CURLOPT_POSTFIELDS, body.data());
  curl_easy_setopt(handle, CURLOPT_HTTPHEADER, headers);
  std::string answer = Perform(handle, url);
  curl_easy_setopt(handle, CURLOPT_HTTPHEADER, nullptr);
  curl_slist_free_all(headers);
  return answer;
}

std::string LoginBody(const char* method, const std::string& params) {
  return std::string(R"({"api":"VELA.Core.Login","method":")") + method + R"(","params":{)" +
         params + R"(},"version":1})";
}

// SCRAM-SHA-256; the token.
std::string LogIn(CURL* handle, const std::string& url, const std::string& password) {
  std::array<unsigned char, 18> random{};
  RAND_bytes(random.data(), static_cast<int>(random.size()));
  const std::string first = "n=boss,r=" + ToBase64(random.data(), random.size());
  const std::string start = Post(
      handle, url,
      LoginBody("start", R"("message":")" + ToBase64(Bytes("n,," + first), first.size() + 3) + '"'),
      "");

  const std::string challenge = FromBase64(Member(start, "message"));
  const std::string salt = FromBase64(Attribute(challenge, "s"));
  Digest salted{};
  PKCS5_PBKDF2_HMAC(password.data(), static_cast<int>(password.size()), Bytes(salt),
                    static_cast<int>(salt.size()), std::stoi(Attribute(challenge, "i")),
                    EVP_sha256(), static_cast<int>(salted.size()), salted.data());
  const std::string last = "c=biws,r=" + Attribute(challenge, "r");
  const std::string all = first + ',' + challenge + ',' + last;
  Digest proof = Hmac(salted, "Client Key");
  Digest stored{};
  SHA256(proof.data(), proof.size(), stored.data());
  const Digest signature = Hmac(stored, all);
  for (std::size_t i = 0; i < proof.size(); ++i) {
    proof[i] ^= signature[i];
  }
  const std::string final_message = last + ",p=" + ToBase64(proof.data(), proof.size());
  const std::string finish =
      Post(handle, url,
           LoginBody("finish", R"("login":")" + Member(start, "login") + R"(","message":")" +
                                   ToBase64(Bytes(final_message), final_message.size()) + '"'),
           "");

  const Digest expected = Hmac(Hmac(salted, "Server Key"), all);
  if (FromBase64(Member(finish, "message")) != "v=" + ToBase64(expected.data(), expected.size())) {
    Fail("the server does not know the account");
  }
  return Member(finish, "token");
}

void Call(CURL* handle, const std::string& host, const std::string& password) {
  const std::string url = host + "/webapi";
  Get(handle, host);
  const std::string token = LogIn(handle, url, password);
  const std::string answer =
      Post(handle, url, R"({"api":"VELA.Core.Web.TARN","method":"get","params":null,"version":1})",
           token);
  if (answer.find("\"success\":true") == std::string::npos) {
    Fail(answer);
  }
}

}  // namespace

int main(int /*argc*/, char** argv) {
  const std::string world = argv[1];
  const std::string protocol = argv[2];
  const std::string host = protocol + "://127.0.0.1:" + argv[3];
  const int calls = std::stoi(argv[4]);
  const std::string password = ReadLine(world + "/password");
  const std::string fingerprint = ReadLine(world + "/fingerprint");

  CURL* const handle = curl_easy_init();
  curl_easy_setopt(handle, CURLOPT_PROXY, "");
  curl_easy_setopt(handle, CURLOPT_NOSIGNAL, 1L);
  curl_easy_setopt(handle, CURLOPT_TIMEOUT, 60L);
  curl_easy_setopt(handle, CURLOPT_HTTP_VERSION, static_cast<long>(CURL_HTTP_VERSION_1_1));
  if (protocol == "https") {
    curl_easy_setopt(handle, CURLOPT_SSLVERSION, static_cast<long>(CURL_SSLVERSION_TLSv1_2));
    curl_easy_setopt(handle, CURLOPT_PINNEDPUBLICKEY, fingerprint.c_str());
    curl_easy_setopt(handle, CURLOPT_SSL_VERIFYPEER, 0L);
    curl_easy_setopt(handle, CURLOPT_SSL_VERIFYHOST, 0L);
  }
  Call(handle, host, password);  // connects
  quillon::bench::Time([&] {
    for (int i = 0; i < calls; ++i) {
      Call(handle, host, password);
    }
  });
  curl_easy_cleanup(handle);
}
