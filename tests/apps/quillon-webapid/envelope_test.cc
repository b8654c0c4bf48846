#include "envelope.h"

#include <string>

#include <gtest/gtest.h>

namespace quillon::webapid {
namespace {

TEST(EnvelopeTest, IsOneLine) {
  Json::Value data;
  data["text"] = "a\nb\"\x01";
  EXPECT_EQ(SuccessText(data), R"({"data":{"text":"a\nb\"\u0001"},"success":true})");
  EXPECT_EQ(FailureText(404, "no \"x\""),
            R"({"error":{"code":404,"message":"no \"x\""},"success":false})");
}

std::string Nested(int depth) {
  const auto count = static_cast<std::size_t>(depth);
  return R"({"a":)" + std::string(count, '[') + std::string(count, ']') + "}";
}

TEST(EnvelopeTest, ParsesExactlyOneObject) {
  Json::Value request;
  EXPECT_TRUE(ParseObject(R"( {"api":"x","version":1} )", request));
  EXPECT_EQ(request["api"], "x");
  for (const char* none :
       {"", " ", "5", "null", "[1]", "\"{}\"", "{}{}", "{} x", "{", "{\"a\":1,}", "{'a':1}",
        "{a:1}", "/**/{}", "{}//", "{\"a\":NaN}", R"({"api":1,"api":2})"}) {
    Json::Value unused;
    EXPECT_FALSE(ParseObject(none, unused)) << none;
  }
  Json::Value unused;
  EXPECT_FALSE(ParseObject(std::string("{}\0{}", 5), unused));
}

TEST(EnvelopeTest, BoundsTheNesting) {
  Json::Value request;
  EXPECT_TRUE(ParseObject(Nested(150), request));
  EXPECT_FALSE(ParseObject(Nested(250), request));
  EXPECT_FALSE(ParseObject(Nested(1000000), request));
  EXPECT_FALSE(ParseObject(std::string(1000000, '['), request));
}

}  // namespace
}  // namespace quillon::webapid
