#include <new>
#include <string>

#include <gmock/gmock.h>

#include <velamailserver/utils.h>

#include "lib-webapi/allocations.h"
#include "recording_platform/world_test.h"
#include "support/parse_json.h"

namespace {

using quillon::test::ExhaustedMemory;
using quillon::test::LiveBytes;
using quillon::test::Parse;
using recording::Pause;

using WebAPIMemoryTest = recording::WorldTest;

// Answers whether so many allocations were enough for a call to a host.
bool IsEnough(int allocations, const Json::Value& request) {
  // Longer than what a string keeps within itself.
  const std::string host = "a-host-with-a-long-name.example.net";
  Json::Value response;
  try {
    const ExhaustedMemory memory(allocations);
    return WebAPIRequest(host, "account", "password", request, response, "http", -1, -1,
                         Json::Value()) == 0;
  } catch (const std::bad_alloc&) {
    return false;
  }
}

TEST_F(WebAPIMemoryTest, ACallThatRunsOutOfItKeepsNothing) {
  world_.body = R"({"success": true, "data": ["a text that is too long for a string itself"]})";
  const Json::Value request = Parse(R"({"api": "A", "version": 1, "method": "m"})");
  const Pause pause;  // the stand-in records nothing, which would take memory, too
  ASSERT_TRUE(IsEnough(10000, request)) << "and what is made once is made";

  int failures = 0;
  bool is_enough = false;
  while (!is_enough) {
    const std::size_t before = LiveBytes();
    is_enough = IsEnough(failures, request);
    EXPECT_EQ(LiveBytes(), before) << failures;
    failures += is_enough ? 0 : 1;
  }
  EXPECT_GT(failures, 10);
}

}  // namespace
