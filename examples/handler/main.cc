// mail-limit CONFIGURATION NAME...: prints who of these users may store the most.
#include <exception>
#include <iostream>

#include <quillon/platform/configuration.h>
#include <quillon/platform/handler_module.h>
#include <velamailserver/run_api.h>

int main(int argc, char** argv) {
  if (argc < 3) {
    std::cerr << "usage: mail-limit CONFIGURATION NAME...\n";
    return 2;
  }
  Json::Value params;
  for (int i = 2; i < argc; ++i) {
    params["names"].append(argv[i]);
  }
  try {
    quillon::platform::UseConfiguration(quillon::platform::LoadConfiguration(argv[1]));
    QuillonRegisterHandlers();
    const Json::Value answer =
        velamailserver::webapi::RunWebapi("Example.MailServer.Limit", "largest", params, 1);
    const Json::Value& data = answer["data"];
    std::cout << data["name"].asString() << ": "
              << (data["limit"].isNull() ? "unlimited" : data["limit"].asString()) << '\n';
  } catch (const std::exception& error) {
    std::cerr << "mail-limit: " << error.what() << '\n';
    return 1;
  }
}
