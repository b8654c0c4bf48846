#include "world.h"

#include <sstream>

#include <fmt/format.h>

#include "system/large_host.h"

namespace quillon::soak {

World::World()
    : server_(fmt::format(
          "workers = 3\nmax_connections_per_address = 400\nreceive_timeout = 3\n"
          "idle_timeout = 20\nmax_login_failures = 1000\nmax_sessions_per_account = 200\n"
          "[usage]\nsocket = \"{}\"\n",
          redis_.socket())) {
  constexpr unsigned int kFirstUid = 20001;
  const std::string folder = server_.folder().path();
  test::MakeAccounts(folder, kUsers, kFirstUid);
  test::FillStores(folder);
  test::MakeMaildirs(folder);
  test::MakeOwnerlessMail(folder, kOwnerless, 3);
  std::istringstream list(server_.folder().Read("names"));
  for (std::string name; std::getline(list, name);) {
    names_.push_back(name);
  }
}

}  // namespace quillon::soak
