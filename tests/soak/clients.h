#pragma once

#include <atomic>
#include <cstddef>
#include <functional>
#include <random>
#include <string>

#include "system/web_server.h"
#include "tally.h"
#include "world.h"

namespace quillon::soak {

/// Somebody who works with the server; nobody else changes the limits of the same users.
class Caller {
 public:
  Caller(const World& world, Tally& tally, std::size_t number);

  /// One call, or a few that belong together.
  void Act();

 private:
  static constexpr std::size_t kOwnUsers = 10;

  std::size_t Random(std::size_t below) { return random_() % below; }
  test::WebAnswer Call(const char* api, const char* method, const std::string& params);
  // Of users that nobody changes.
  std::size_t SomeUser();
  void CallPlainly();
  void ReadNames();
  void ReadList();
  void ReadDetails();
  void ReadOwnerless();
  void SetQuota();
  void CountUsage();

  const World& world_;
  Tally& tally_;
  const std::size_t number_;
  std::mt19937 random_;
  test::WebClient client_;
  std::string token_;
};

/// Somebody who logs in, in the right way or not, and whose sessions end.
class Visitor {
 public:
  Visitor(const World& world, Tally& tally, std::size_t number);

  void Act();

 private:
  void Fail();
  void EndSession();
  void OutliveSession();

  const World& world_;
  Tally& tally_;
  std::mt19937 random_;
};

}  // namespace quillon::soak
