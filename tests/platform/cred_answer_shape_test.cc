#include <string>

#include <gtest/gtest.h>

#include "cred/answer_shape.h"

namespace quillon::platform {
namespace {

std::string Repeated(const std::string& text, int times) {
  std::string result;
  for (int i = 0; i < times; ++i) {
    result += text;
  }
  return result;
}

TEST(AnswerShape, MayBeNested200LevelsDeep) {
  EXPECT_EQ(ObjectToShape(Repeated("[", 200) + Repeated("]", 200)), nullptr);
  EXPECT_STREQ(ObjectToShape(Repeated("[", 201) + Repeated("]", 201)), "is nested too deeply");
  EXPECT_EQ(ObjectToShape(Repeated("{\"a\":", 200) + "1" + Repeated("}", 200)), nullptr);
  EXPECT_STREQ(ObjectToShape(Repeated("{\"a\":", 201)), "is nested too deeply");
  EXPECT_STREQ(ObjectToShape(Repeated("[{\"a\":", 101)), "is nested too deeply");
}

TEST(AnswerShape, IsNotDeepBecauseItIsLong) {
  EXPECT_EQ(ObjectToShape(std::string("[") + Repeated("[],{},", 100000) + "1]"), nullptr);
  EXPECT_EQ(ObjectToShape(Repeated("]", 300) + Repeated("[", 200)), nullptr);
}

TEST(AnswerShape, IsNotWhatStringsHold) {
  EXPECT_EQ(ObjectToShape("[\"" + Repeated("[", 300) + "\"]"), nullptr);
  EXPECT_EQ(ObjectToShape("[\"\\\"" + Repeated("[", 300) + "\\\\\"]"), nullptr);
  EXPECT_EQ(ObjectToShape("[\"http://host/* \"]"), nullptr);
  EXPECT_STREQ(ObjectToShape("[\"\\\\\"" + Repeated("[", 300)), "is nested too deeply");
  EXPECT_STREQ(ObjectToShape("[\"]\"" + Repeated("[", 200)), "is nested too deeply");
}

TEST(AnswerShape, HasNoComments) {
  EXPECT_STREQ(ObjectToShape("{} // why"), "holds comments");
  EXPECT_STREQ(ObjectToShape("/* \" */ {}"), "holds comments");
  EXPECT_EQ(ObjectToShape("<html></html>"), nullptr);
}

TEST(AnswerShape, MayBeNoJSON) {
  for (const char* text : {"", "/", "\"", "\"\\", "\\", "[", "}", "\xff\xfe"}) {
    EXPECT_EQ(ObjectToShape(text), nullptr) << text;
  }
}

}  // namespace
}  // namespace quillon::platform
