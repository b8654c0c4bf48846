// call-by-library WORLD PROTOCOL PORT CALLS: calls an API of the web server on this host's port,
// one call after the other.
#include <fstream>
#include <iostream>
#include <string>

#include <json/value.h>

#include <quillon/platform/configuration.h>
#include <velamailserver/utils.h>

#include "timing.h"

int main(int /*argc*/, char** argv) {
  const std::string world = argv[1];
  const std::string protocol = argv[2];
  const int port = std::stoi(argv[3]);
  const int calls = std::stoi(argv[4]);
  quillon::platform::UseConfiguration(quillon::platform::LoadConfiguration(world + "/client.toml"));
  std::string password;
  std::getline(std::ifstream(world + "/password"), password);

  Json::Value request;
  request["api"] = "VELA.Core.Web.TARN";
  request["version"] = 1;
  request["method"] = "get";
  const auto call = [&] {
    Json::Value response;
    if (WebAPIRequest("127.0.0.1", "boss", password, request, response, protocol, port, -1,
                      Json::Value()) != 0 ||
        !response["success"].asBool()) {
      std::cerr << "call-by-library: a call failed\n";
      std::exit(EXIT_FAILURE);
    }
  };
  call();  // connects
  quillon::bench::Time([&] {
    for (int i = 0; i < calls; ++i) {
      call();
    }
  });
}
