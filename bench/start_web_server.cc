// start-web-server URL PROGRAM ARGUMENT...: starts a web server, prints the seconds until it has
// answered a first request, and ends it.
#include <curl/curl.h>

#include <chrono>
#include <cstdlib>
#include <iostream>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "support/program.h"
#include "timing.h"

namespace {

std::size_t Ignore(const char* /*data*/, std::size_t size, std::size_t count, void* /*context*/) {
  return size * count;
}

}  // namespace

int main(int argc, char** argv) {
  CURL* const handle = curl_easy_init();
  curl_easy_setopt(handle, CURLOPT_URL, argv[1]);
  curl_easy_setopt(handle, CURLOPT_PROXY, "");
  curl_easy_setopt(handle, CURLOPT_SSL_VERIFYPEER, 0L);
  curl_easy_setopt(handle, CURLOPT_SSL_VERIFYHOST, 0L);
  curl_easy_setopt(handle, CURLOPT_WRITEFUNCTION, &Ignore);
  {
    using Clock = std::chrono::steady_clock;
    const auto deadline = Clock::now() + std::chrono::seconds(20);
    std::optional<quillon::test::BackgroundProgram> program;
    quillon::bench::Time([&] {
      program.emplace(std::vector<std::string>(argv + 2, argv + argc), "/dev/null");
      while (curl_easy_perform(handle) != CURLE_OK) {
        if (Clock::now() > deadline) {
          std::cerr << "start-web-server: " << argv[2] << " does not answer\n";
          program.reset();
          std::exit(EXIT_FAILURE);
        }
        std::this_thread::sleep_for(std::chrono::microseconds(200));
      }
    });
  }
  curl_easy_cleanup(handle);
  return EXIT_SUCCESS;
}
