#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <quillon/platform/configuration.h>
#include <quillon/platform/printable.h>
#include <velamailserver/log_exception.h>
#include <velamailserver/utils/text.h>

namespace {

using quillon::platform::Printable;
using velamailserver::Join;
using velamailserver::utils::ToLowerCase;
using velamailserver::utils::ToULL;

TEST(ToULL, ReadsDecimalDigits) {
  EXPECT_EQ(ToULL("0"), 0U);
  EXPECT_EQ(ToULL("1073741824"), 1073741824U);
  EXPECT_EQ(ToULL("007"), 7U);
  EXPECT_EQ(ToULL("18446744073709551615"), 18446744073709551615U);
}

TEST(ToULL, RefusesEverythingElse) {
  quillon::platform::Configuration quiet;
  quiet.log = {"file", "/dev/null"};
  quillon::platform::UseConfiguration(quiet);
  for (const std::string& text :
       {std::string(), std::string("-1"), std::string("+1"), std::string(" 1"), std::string("1 "),
        std::string("1\n"), std::string("0x10"), std::string("1.0"), std::string("1e3"),
        std::string("one"), std::string("1\0", 2), std::string("18446744073709551616"),
        std::string("99999999999999999999999")}) {
    try {
      ToULL(text);
      ADD_FAILURE() << '[' << text << ']';
    } catch (const velamailserver::LogException& error) {
      EXPECT_EQ(error.code(), velamailserver::ERR_INTERNAL);
      EXPECT_THAT(error.what(), testing::StartsWith("not a decimal number of 64 bits: ["));
    }
  }
}

TEST(ToLowerCase, ChangesTheLettersAToZOnly) {
  EXPECT_EQ(ToLowerCase("AbcXYZ019[]@`{"), "abcxyz019[]@`{");
  EXPECT_EQ(ToLowerCase("JÖRG"), "jÖrg");
  EXPECT_EQ(ToLowerCase(std::string("A\0B", 3)), std::string("a\0b", 3));
  EXPECT_EQ(ToLowerCase(""), "");
}

TEST(Join, PutsTheSeparatorBetweenItems) {
  EXPECT_EQ(Join({}, ","), "");
  EXPECT_EQ(Join({"alice"}, ","), "alice");
  EXPECT_EQ(Join({"alice", "bob", ""}, ","), "alice,bob,");
  EXPECT_EQ(Join({"", ""}, ", "), ", ");
}

TEST(Printable, KeepsTextOnOneHarmlessLine) {
  EXPECT_EQ(Printable("plain Jörg 100%"), "plain Jörg 100%");
  EXPECT_EQ(Printable("a\nb\rc\td\\e"), "a\\nb\\rc\\td\\\\e");
  EXPECT_EQ(Printable("\x1b[31m\x7f"), "\\x1b[31m\\x7f");
  EXPECT_EQ(Printable(std::string_view("\0", 1)), "\\x00");
  EXPECT_EQ(Printable("\xc2\x9b"
                      "1m"),
            "\\x9b1m");
  EXPECT_EQ(Printable("\xc2\xa9"), "\xc2\xa9");
  EXPECT_EQ(Printable("\xc2"), "\xc2");
}

}  // namespace
