#pragma once

#include <cstddef>
#include <random>
#include <string>

#include "tally.h"
#include "world.h"

namespace quillon::soak {

/// A client that means harm, or is merely broken.
class Hostile {
 public:
  Hostile(const World& world, Tally& tally, std::size_t number);

  void Act();

 private:
  void LeaveInMidAnswer();
  void SendHalf(const std::string& part);
  void Drip();
  void SendNonsense();
  void SendLongHeader();
  void SendBadRequest();

  const World& world_;
  Tally& tally_;
  std::mt19937 random_;
  std::string token_;
};

}  // namespace quillon::soak
