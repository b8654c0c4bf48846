#include "frame.h"

#include <cstring>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace quillon::webapid {
namespace {

using testing::ElementsAre;

const Frame kFrame{7, 3, kAdmin, {"request", std::string("k\0y", 3), ""}};

std::string Number(std::uint32_t number) {
  return {reinterpret_cast<const char*>(&number), sizeof(number)};
}

void ExpectFrame(const std::optional<Frame>& frame) {
  ASSERT_TRUE(frame);
  EXPECT_EQ(frame->index, 7U);
  EXPECT_EQ(frame->generation, 3U);
  EXPECT_EQ(frame->code, kAdmin);
  EXPECT_EQ(frame->parts, kFrame.parts);
}

TEST(FrameTest, ArrivesByteByByteOrManyAtOnce) {
  const std::string bytes = Encode(kFrame);
  FrameReader reader;
  for (std::size_t i = 0; i + 1 < bytes.size(); ++i) {
    reader.Append(bytes.substr(i, 1));
    ASSERT_FALSE(reader.Next());
  }
  reader.Append(bytes.substr(bytes.size() - 1) + bytes);
  ExpectFrame(reader.Next());
  ExpectFrame(reader.Next());
  EXPECT_FALSE(reader.Next());
}

TEST(FrameTest, MayHaveNoParts) {
  FrameReader reader;
  reader.Append(Encode({1, 2, 200, {}}));
  const auto frame = reader.Next();
  ASSERT_TRUE(frame);
  EXPECT_TRUE(frame->parts.empty());
}

TEST(FrameTest, OfAnImpossibleLengthIsRefused) {
  for (const std::uint32_t length :
       {std::uint32_t{0}, std::uint32_t{11}, static_cast<std::uint32_t>(kLargestFrame + 1)}) {
    FrameReader reader;
    reader.Append(Number(length) + std::string(12, '\0'));
    EXPECT_THROW(reader.Next(), FrameError) << length;
  }
}

TEST(FrameTest, WithAPartBeyondItsEndIsRefused) {
  const std::string members = Number(0) + Number(0) + Number(0);
  FrameReader longer;
  longer.Append(Number(18) + members + Number(3) + "ab");
  EXPECT_THROW(longer.Next(), FrameError);
  FrameReader cut;
  cut.Append(Number(14) + members + "ab");
  EXPECT_THROW(cut.Next(), FrameError);
}

TEST(FrameTest, ThatIsTooLargeIsNotSent) {
  const Frame frame{0, 0, 0, {std::string(kLargestFrame, 'x')}};
  EXPECT_THROW(Encode(frame), FrameError);
}

}  // namespace
}  // namespace quillon::webapid
