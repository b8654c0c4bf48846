#include "quota_api.h"

#include <algorithm>
#include <iterator>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <json/value.h>

#include <vela/api_runner.h>
#include <velamailserver/log_exception.h>

#include "recording_platform/world_test.h"
#include "support/typed_json.h"

namespace quillon::handlers {
namespace {

using recording::Throw;
using test::Compact;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using velamailserver::LogException;

constexpr char kNoSize[] = "is not a size: a whole number, then B, K, M, G or nothing";

// How a call ended.
struct Outcome {
  int code = 0;         // 0: it succeeded
  std::string message;  // of a failure
  std::string data;     // of the answer, or of the failure
};

class QuotaAPITest : public recording::WorldTest {
 protected:
  QuotaAPITest() {
    world_.AddUser("alice", 1001);
    world_.AddUser("bob", 1002);
    world_.AddUser("carol", 1003);
    world_.AddUser("s\xc3\xb8ren", 1004);
    RegisterQuotaAPI();
  }

  Outcome Call(const Json::Value& params, const std::string& method = "import") {
    world_.transcript.clear();
    try {
      return {0, "", Compact(world_.handlers.at("Quillon.MailServer.Quota " + method)(params))};
    } catch (const VELA::APIError& error) {
      return {error.code(), error.what(), error.data() == nullptr ? "" : Compact(*error.data())};
    }
  }

  Outcome Import(std::string_view file, bool is_dry_run = false) {
    Json::Value params;
    params["file"] = Json::Value(file.data(), file.data() + file.size());
    params["dry_run"] = is_dry_run;
    return Call(params);
  }

  // What a file is refused for; nothing was written.
  std::string Bad(std::string_view file) {
    const Outcome outcome = Import(file);
    EXPECT_EQ(outcome.code, VELA::APIRunner::kBadParameters);
    EXPECT_THAT(outcome.message, HasSubstr("nothing was written"));
    EXPECT_THAT(Written(), IsEmpty());
    return outcome.data;
  }

  // One row that is bad; its name is null when its columns cannot be told apart.
  static std::string Row(int row, const Json::Value& name, const std::string& reason) {
    Json::Value data;
    Json::Value& bad = data["bad"][0];
    bad["row"] = row;
    bad["name"] = name;
    bad["reason"] = reason;
    return Compact(data);
  }

  // The calls that change the store.
  std::vector<std::string> Written() const {
    std::vector<std::string> calls;
    std::copy_if(world_.transcript.begin(), world_.transcript.end(), std::back_inserter(calls),
                 [](const std::string& call) { return call.starts_with("Set"); });
    return calls;
  }
};

TEST_F(QuotaAPITest, WritesRowsOfTheSameLimitAndWarningTogether) {
  const Outcome outcome = Import("alice,10,9\nbob,20,9\ncarol,10,9\ns\xc3\xb8ren,10,8\n");
  EXPECT_EQ(outcome.message, "");
  EXPECT_EQ(outcome.data, R"({"groups":3,"rows":4})");
  EXPECT_THAT(Written(),
              ElementsAre("SetUserQuotaLimit([alice, carol], 10)",
                          "SetUserQuotaWarning([alice, carol], 9)", "SetUserQuotaLimit([bob], 20)",
                          "SetUserQuotaWarning([bob], 9)", "SetUserQuotaLimit([s\xc3\xb8ren], 10)",
                          "SetUserQuotaWarning([s\xc3\xb8ren], 8)"));
}

TEST_F(QuotaAPITest, ChecksAllRowsBeforeTheFirstIsWritten) {
  EXPECT_EQ(Import("alice,10,9\nbob,10,9\n").code, 0);
  const auto first_write =
      std::find_if(world_.transcript.begin(), world_.transcript.end(),
                   [](const std::string& call) { return call.starts_with("Set"); });
  ASSERT_NE(first_write, world_.transcript.end());
  EXPECT_TRUE(std::none_of(first_write, world_.transcript.end(),
                           [](const std::string& call) { return call.starts_with("VelaUser"); }));
}

TEST_F(QuotaAPITest, DryRunWritesNothing) {
  EXPECT_EQ(Import("alice,10,9\nbob,20,9\n", true).data, R"({"groups":2,"rows":2})");
  EXPECT_THAT(Written(), IsEmpty());
  EXPECT_EQ(Import("alice,10,11\n", true).data, Row(1, "alice", "the warning is above the limit"));
}

// A text of one good row for alice.
class GoodFileTest : public QuotaAPITest, public testing::WithParamInterface<const char*> {};

TEST_P(GoodFileTest, IsRead) {
  const Outcome outcome = Import(GetParam());
  EXPECT_EQ(outcome.message, "") << outcome.data;
  EXPECT_THAT(Written(), ElementsAre("SetUserQuotaLimit([alice], 2048)",
                                     "SetUserQuotaWarning([alice], 1024)"));
}

INSTANTIATE_TEST_SUITE_P(Quota, GoodFileTest,
                         testing::Values("alice,2048,1024", "alice,2K,1K\n", "alice,2048B,1K\r\n",
                                         "ALICE,02048,1024\n", "name,limit,warning\nalice,2K,1K\n",
                                         "\xef\xbb\xbfname,limit,warning\r\nalice,2K,1K\r\n",
                                         "# name,limit\n\n \t\r\n\"name\",limit,\"warning\"\n#\n"
                                         "alice,2K,1K\n\n\n",
                                         "\"alice\",\"2K\",\"1K\"", "alice,\"2K\",1K\r\n"));

TEST_F(QuotaAPITest, TakesAllOf64Bits) {
  EXPECT_EQ(Import("alice,18446744073709551615,18446744073709551615\nbob,0,0\n").code, 0);
  EXPECT_THAT(Written(),
              ElementsAre("SetUserQuotaLimit([alice], 18446744073709551615)",
                          "SetUserQuotaWarning([alice], 18446744073709551615)",
                          "SetUserQuotaLimit([bob], 0)", "SetUserQuotaWarning([bob], 0)"));
}

TEST_F(QuotaAPITest, UnderstandsQuotedNames) {
  world_.AddUser("a,\"b\"", 1005);
  world_.AddUser("#c", 1006);
  EXPECT_EQ(Import("\"a,\"\"b\"\"\",2,1\n\"#c\",2,1\n").code, 0);
  EXPECT_THAT(Written(), ElementsAre("SetUserQuotaLimit([a,\"b\", #c], 2)",
                                     "SetUserQuotaWarning([a,\"b\", #c], 1)"));
}

TEST_F(QuotaAPITest, OnlyTheFirstRowMayBeTheTitles) {
  EXPECT_EQ(Bad("alice,2,1\nname,limit,warning\n"),
            Row(2, "name",
                std::string("limit: [limit] ") + kNoSize + "; warning: [warning] " + kNoSize +
                    "; no such user"));
  EXPECT_THAT(Bad("Name,Limit,Warning\nalice,2,1\n"), HasSubstr(R"("name":"Name")"));
}

struct BadRow {
  const char* file;
  int row;
  const char* name;
  std::string reason;
};

class BadRowTest : public QuotaAPITest, public testing::WithParamInterface<BadRow> {};

TEST_P(BadRowTest, RefusesTheFile) {
  const BadRow& bad = GetParam();
  const Json::Value name = bad.name == nullptr ? Json::Value() : Json::Value(bad.name);
  EXPECT_EQ(Bad(bad.file), Row(bad.row, name, bad.reason));
}

constexpr char kNoColumns[] = "there must be three columns: name, limit, warning";

INSTANTIATE_TEST_SUITE_P(
    Quota, BadRowTest,
    testing::Values(
        BadRow{"alice,2,1\neve,2,1\nbob,2,1\n", 2, "eve", "no such user"},
        BadRow{"# a comment\n\nname,limit,warning\n,2,1\n", 4, "", "no such user"},
        BadRow{"alice,2,3", 1, "alice", "the warning is above the limit"},
        BadRow{"alice,0,1", 1, "alice", "the warning is above the limit"},
        BadRow{"alice,-1,0", 1, "alice", std::string("limit: [-1] ") + kNoSize},
        BadRow{"alice,2, 1", 1, "alice", std::string("warning: [ 1] ") + kNoSize},
        BadRow{"alice,1.5G,1", 1, "alice", std::string("limit: [1.5G] ") + kNoSize},
        BadRow{"alice,2k,1", 1, "alice", std::string("limit: [2k] ") + kNoSize},
        BadRow{"alice,,1", 1, "alice", std::string("limit: [] ") + kNoSize},
        BadRow{"alice,18446744073709551616,1", 1, "alice",
               "limit: [18446744073709551616] is too large, a size has at most "
               "18446744073709551615 bytes"},
        BadRow{" alice,2,1", 1, " alice", "no such user"}, BadRow{"alice", 1, nullptr, kNoColumns},
        BadRow{"alice,2", 1, nullptr, kNoColumns},
        BadRow{"alice,2,", 1, "alice", std::string("warning: [] ") + kNoSize},
        BadRow{"alice,2,1,", 1, nullptr, kNoColumns}, BadRow{"alice,2,1,x", 1, nullptr, kNoColumns},
        BadRow{"alice;2;1", 1, nullptr, kNoColumns},
        BadRow{"\"alice,2,1\n", 1, nullptr, "a quoted field does not end"},
        BadRow{"\"alice\"x,2,1", 1, nullptr, "there is text behind the end of a quoted field"},
        BadRow{"al\"ice,2,1", 1, nullptr,
               "there is a quote in a field that does not begin with one"},
        BadRow{"alice,2,1\n\xff,2,1", 2, nullptr, "the text is not UTF-8"},
        BadRow{"s\xc3,2,1", 1, nullptr, "the text is not UTF-8"},
        BadRow{"alice\xc0\x80,2,1", 1, nullptr, "the text is not UTF-8"},
        BadRow{"alice\xed\xa0\x80,2,1", 1, nullptr, "the text is not UTF-8"},
        BadRow{"alice,2,1\nALICE,2,1\n", 2, "ALICE", "the same user as in row 1"},
        BadRow{"alice,2,1\rbob,2,1", 1, nullptr, kNoColumns}));

TEST_F(QuotaAPITest, DoesNotCutANameAtItsNul) {
  EXPECT_EQ(Bad(std::string_view("bob,2,1\nalice\0,2,1\n", 19)),
            Row(2, Json::Value(), "there is a NUL character"));
}

TEST_F(QuotaAPITest, KnowsAUserUnderASecondName) {
  world_.AddUser("alias", 1001);
  EXPECT_EQ(Bad("alias,2,1\nalice,2,1\n"), Row(2, "alice", "the same user as in row 1"));
}

TEST_F(QuotaAPITest, ListsEveryBadRowWithAllThatIsWrongInIt) {
  const Outcome outcome =
      Import("alice,x,1\nbob,2,1\neve,y,\nalice,2,1\ncarol\n\"bob\nmallory,2,1\n");
  EXPECT_EQ(outcome.code, VELA::APIRunner::kBadParameters);
  EXPECT_EQ(outcome.message,
            std::string("6 of 7 rows are bad, nothing was written; the first is row 1 [alice]: "
                        "limit: [x] ") +
                kNoSize);
  const std::string is_no_size = kNoSize;
  EXPECT_EQ(outcome.data,
            R"({"bad":[{"name":"alice","reason":"limit: [x] )" + is_no_size +
                R"(","row":1},{"name":"eve","reason":"limit: [y] )" + is_no_size +
                "; warning: [] " + is_no_size +
                R"(; no such user","row":3},{"name":"alice","reason":"the same user as in row 1",)"
                R"("row":4},{"name":null,"reason":")" +
                kNoColumns +
                R"(","row":5},{"name":null,"reason":"a quoted field does not end","row":6},)"
                R"({"name":"mallory","reason":"no such user","row":7}]})");
  EXPECT_THAT(Written(), IsEmpty());
}

TEST_F(QuotaAPITest, StopsAskingTheHostForUnknownUsers) {
  std::string file;
  for (int i = 0; i < 150; ++i) {
    file += "n" + std::to_string(i) + ",2,1\n";
  }
  const Outcome outcome = Import(file + "alice,2,1\n");
  EXPECT_THAT(outcome.message, testing::StartsWith("150 of 151 rows are bad"));
  EXPECT_THAT(outcome.data, HasSubstr(R"({"name":"n149","reason":"no such user","row":150}])"));
  const auto asked = std::count_if(world_.transcript.begin(), world_.transcript.end(),
                                   [](auto& call) { return call.starts_with("VelaUser(name=n"); });
  EXPECT_EQ(asked, 100);
}

TEST_F(QuotaAPITest, CallsNobodyUnknownWhileTheAccountsCannotBeRead) {
  world_.FailCallsStartingWith("EnumUsers", Throw<LogException>(velamailserver::ERR_SDK_USER_ENUM,
                                                                "unreadable", 3, "file", 1));
  try {
    Import("alice,2,1\neve,2,1\n");
    FAIL();
  } catch (const LogException& error) {
    EXPECT_EQ(error.code(), velamailserver::ERR_SDK_USER_ENUM);
  }
  EXPECT_THAT(Written(), IsEmpty());
}

TEST_F(QuotaAPITest, TellsWhereEachRowStandsWhenTheStoreFails) {
  for (const char* call : {"SetUserQuotaLimit([bob]", "SetUserQuotaWarning([bob]"}) {
    world_ = recording::World();
    world_.AddUser("alice", 1001);
    world_.AddUser("bob", 1002);
    world_.AddUser("carol", 1003);
    RegisterQuotaAPI();
    world_.FailCallsStartingWith(
        call, Throw<LogException>(velamailserver::ERR_DB_REPLACE, "disk full", 3, "file", 1));
    const Outcome outcome = Import("# c\nalice,10,9\nbob,20,9\ncarol,30,9\n");
    EXPECT_EQ(outcome.code, velamailserver::ERR_DB_REPLACE);
    EXPECT_EQ(outcome.message, "disk full; 1 of 3 rows were written, import the file again");
    EXPECT_EQ(outcome.data,
              R"({"failed":[{"name":"bob","row":3}],"left":[{"name":"carol","row":4}],)"
              R"("written":[{"name":"alice","row":2}]})");
  }
}

TEST_F(QuotaAPITest, TellsItAlsoWhenTheStoreCannotBeOpened) {
  world_.FailCallsStartingWith("MailboxQuota()", Throw<std::runtime_error>("no store"));
  const Outcome outcome = Import("alice,10,9\nbob,10,9\n");
  EXPECT_EQ(outcome.code, VELA::APIRunner::kHandlerFailed);
  EXPECT_EQ(outcome.message, "no store; 0 of 2 rows were written, import the file again");
  EXPECT_EQ(outcome.data, R"({"failed":[{"name":"alice","row":1},{"name":"bob","row":2}],)"
                          R"("left":[],"written":[]})");
  EXPECT_THAT(Written(), IsEmpty());
}

TEST_F(QuotaAPITest, RefusesAFileWithoutRows) {
  for (const char* file : {"", "\n\n", "# nothing\n", "name,limit,warning\n", "\xef\xbb\xbf"}) {
    const Outcome outcome = Import(file);
    EXPECT_EQ(outcome.code, VELA::APIRunner::kBadParameters);
    EXPECT_EQ(outcome.message, "the file has no rows");
  }
}

TEST_F(QuotaAPITest, RefusesAFileOfVeryManyRows) {
  std::string file;
  for (int i = 0; i < 200001; ++i) {
    file += "x\n";
  }
  EXPECT_EQ(Import(file).message, "the file has more than 200000 rows");
  file.resize(file.size() - 2);
  EXPECT_THAT(Import(file).message, testing::StartsWith("200000 of 200000 rows are bad"));
}

TEST_F(QuotaAPITest, RefusesOtherParameters) {
  Json::Value params;
  EXPECT_EQ(Call(params).message, "parameter [file] is missing");
  params["file"] = 5;
  EXPECT_EQ(Call(params).message, "parameter [file] must be a string");
  params["file"] = "alice,2,1";
  params["dry_run"] = "yes";
  EXPECT_EQ(Call(params).message, "parameter [dry_run] must be true or false");
  params["dry_run"] = true;
  params["force"] = true;
  EXPECT_EQ(Call(params).message, "unknown parameter [force]");
  EXPECT_THAT(Written(), IsEmpty());
}

TEST_F(QuotaAPITest, SynchronisesTheMailUsers) {
  world_.mail_user_changes = {.added = 1, .changed = 2, .removed = 3, .unchanged = 4};
  Json::Value params;
  EXPECT_EQ(Call(params, "sync").data, R"({"added":1,"changed":2,"removed":3,"unchanged":4})");
  EXPECT_THAT(world_.transcript, ElementsAre("SyncMailUsers(false)"));
  params["dry_run"] = true;
  EXPECT_EQ(Call(params, "sync").code, 0);
  EXPECT_THAT(world_.transcript, ElementsAre("SyncMailUsers(true)"));
  params["dry_run"] = 1;
  EXPECT_EQ(Call(params, "sync").message, "parameter [dry_run] must be true or false");
}

TEST_F(QuotaAPITest, TellsWhyTheMailUsersCannotBeSynchronised) {
  world_.FailCallsStartingWith(
      "SyncMailUsers",
      Throw<LogException>(velamailserver::ERR_SDK_USER_ENUM, "cannot list them", 3, "file", 1));
  EXPECT_THROW(Call(Json::Value(), "sync"), LogException);
}

}  // namespace
}  // namespace quillon::handlers
