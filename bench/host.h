#pragma once

#include <cstddef>
#include <stdexcept>
#include <string>

#include "measure.h"
#include "support/program.h"
#include "support/redis_server.h"
#include "support/temporary_folder.h"
#include "system/large_host.h"
#include "system/world.h"

namespace quillon::bench {

/// A host of its own for a measurement.
struct Host {
  explicit Host(std::size_t users) { test::MakeHost(folder.path(), users, redis.socket()); }

  std::string path() const { return folder.path(); }

  /// quillonctl with this host's configuration, ready to be run.
  Command Quillonctl(const Command& arguments) const {
    Command command = {test::QuillonctlPath(), "--config", folder / "mailserver.toml"};
    command.insert(command.end(), arguments.begin(), arguments.end());
    return command;
  }

  /// What quillonctl prints. Throws when it fails.
  std::string Do(const Command& arguments) const {
    const test::Outcome outcome = test::Run(Quillonctl(arguments));
    if (outcome.exit_code != 0) {
      throw std::runtime_error("quillonctl: " + outcome.error);
    }
    return outcome.output;
  }

  test::TemporaryFolder folder;
  test::RedisServer redis;
};

}  // namespace quillon::bench
