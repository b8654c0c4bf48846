#pragma once

#include <gtest/gtest.h>

#include "recording_platform/world.h"

namespace recording {

/// A test in a world of its own: nothing scripted, nothing recorded.
class WorldTest : public testing::Test {
 protected:
  WorldTest() { world_ = World(); }

  World& world_ = TheWorld();
};

}  // namespace recording
