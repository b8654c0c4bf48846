#include <ostream>
#include <sstream>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <json/reader.h>
#include <json/value.h>

#include <quillon/handlers/register.h>
#include <vela/api_runner.h>

namespace quillon::handlers {
namespace {

struct BadCall {
  const char* api;
  const char* method;
  const char* params;
  const char* message;
};

// The name of the test.
void PrintTo(const BadCall& call, std::ostream* out) { *out << call.method << " " << call.params; }

class ParametersTest : public testing::TestWithParam<BadCall> {};

// Refused before any store is asked: none is there.
TEST_P(ParametersTest, AreRefused) {
  RegisterAll();
  const BadCall& call = GetParam();
  Json::Value params;
  std::istringstream(call.params) >> params;
  Json::Value response;
  VELA::APIRunner::Exec(response, call.api, 1, call.method, params, "admin");
  EXPECT_FALSE(response["success"].asBool());
  EXPECT_EQ(response["error"]["code"].asInt(), VELA::APIRunner::kBadParameters);
  EXPECT_EQ(response["error"]["message"].asString(), call.message);
}

constexpr char kUser[] = "Quillon.MailServer.User";
constexpr char kGroup[] = "Quillon.MailServer.Group";
constexpr char kPrivilege[] = "Quillon.MailServer.Privilege";
constexpr char kUsage[] = "Quillon.MailServer.Usage";
constexpr char kNoOwner[] = "Quillon.MailServer.NoOwner";
constexpr char kIds[] = "parameter [uids] must be an array of whole numbers from 0 to 4294967295";
constexpr char kUnsigned[] =
    "parameter [limit] must be a whole number from 0 to 18446744073709551615";

INSTANTIATE_TEST_SUITE_P(
    List, ParametersTest,
    testing::Values(
        BadCall{kUser, "list", "[]", "the parameters must be an object"},
        BadCall{kUser, "list", "\"names\"", "the parameters must be an object"},
        BadCall{kUser, "list", R"({"nmaes": []})", "unknown parameter [nmaes]"},
        BadCall{kUser, "list", R"({"names": "alice"})",
                "parameter [names] must be an array of strings"},
        BadCall{kUser, "list", R"({"names": null})",
                "parameter [names] must be an array of strings"},
        BadCall{kUser, "list", R"({"names": ["alice", 5]})",
                "parameter [names] must be an array of strings"},
        BadCall{kUser, "list", R"({"names": ["alice\u0000x"]})",
                "parameter [names] must be without NUL characters"},
        BadCall{kUser, "list", R"({"sort": "size"})",
                "parameter [sort] must be one of name, limit, warning, usage, percent"},
        BadCall{kUser, "list", R"({"sort": 1})",
                "parameter [sort] must be one of name, limit, warning, usage, percent"},
        BadCall{kUser, "list", R"({"direction": "desc"})",
                "parameter [direction] must be one of ASC, DESC"},
        BadCall{kUser, "list", R"({"offset": -1})",
                "parameter [offset] must be a whole number from 0 to 18446744073709551615"},
        BadCall{kUser, "list", R"({"limit": 1.0})",
                "parameter [limit] must be a whole number from -9223372036854775808 to "
                "9223372036854775807"},
        BadCall{kUser, "list", R"({"limit": 9223372036854775808})",
                "parameter [limit] must be a whole number from -9223372036854775808 to "
                "9223372036854775807"},
        BadCall{kUser, "list", R"({"above": "80"})", "parameter [above] must be a number"},
        BadCall{kUser, "names", R"({"names": "alice"})",
                "parameter [names] must be an array of strings"},
        BadCall{kUser, "names", R"({"sort": "name"})", "unknown parameter [sort]"}));

INSTANTIATE_TEST_SUITE_P(
    Changes, ParametersTest,
    testing::Values(
        BadCall{kUser, "set_quota", R"({"names": ["a"], "warning": 1})",
                "parameter [limit] is missing"},
        BadCall{kUser, "set_quota", R"({"names": ["a"], "limit": 1})",
                "parameter [warning] is missing"},
        BadCall{kUser, "set_quota", R"({"limit": 1, "warning": 1})",
                "parameter [names] is missing"},
        BadCall{kUser, "set_quota", R"({"names": [], "limit": 1, "warning": 1})",
                "parameter [names] must hold at least one name"},
        BadCall{kUser, "set_quota", R"({"names": ["a"], "limit": "1K", "warning": 1})", kUnsigned},
        BadCall{kUser, "set_quota", R"({"names": ["a"], "limit": true, "warning": 1})", kUnsigned},
        BadCall{kUser, "set_quota", R"({"names": ["a"], "limit": -1, "warning": 1})", kUnsigned},
        BadCall{kUser, "set_quota", R"({"names": ["a"], "limit": 1e3, "warning": 1})", kUnsigned},
        BadCall{kUser, "set_quota",
                R"({"names": ["a"], "limit": 18446744073709551616, "warning": 1})", kUnsigned},
        BadCall{kUser, "set_quota", R"({"names": ["a"], "limit": 2, "warning": 1, "user": "a"})",
                "unknown parameter [user]"},
        BadCall{kUser, "clear_quota", "{}", "parameter [names] is missing"},
        BadCall{kUser, "clear_quota", "null", "parameter [names] is missing"},
        BadCall{kUser, "clear_quota", R"({"names": []})",
                "parameter [names] must hold at least one name"},
        BadCall{kUsage, "count", "{}", "parameter [names] is missing"},
        BadCall{kUsage, "count", R"({"names": {}})",
                "parameter [names] must be an array of strings"},
        BadCall{kUsage, "count", R"({"names": ["a"], "wait": true})", "unknown parameter [wait]"}));

INSTANTIATE_TEST_SUITE_P(
    NoOwner, ParametersTest,
    testing::Values(
        BadCall{kNoOwner, "list", R"({"offset": -1})",
                "parameter [offset] must be a whole number from 0 to 18446744073709551615"},
        BadCall{kNoOwner, "list", R"({"limit": "all"})",
                "parameter [limit] must be a whole number from -9223372036854775808 to "
                "9223372036854775807"},
        BadCall{kNoOwner, "list", R"({"keyword": 5})", "parameter [keyword] must be a string"},
        BadCall{kNoOwner, "list", R"({"keyword": "a\u0000"})",
                "parameter [keyword] must be without NUL characters"},
        BadCall{kNoOwner, "list", R"({"sort_by": "uid"})",
                "parameter [sort_by] must be one of name, usage"},
        BadCall{kNoOwner, "list", R"({"sort_direction": "desc"})",
                "parameter [sort_direction] must be one of ASC, DESC"},
        BadCall{kNoOwner, "list", R"({"uids": [1]})", "unknown parameter [uids]"},
        BadCall{kNoOwner, "refresh", R"({"wait": true})", "unknown parameter [wait]"},
        BadCall{kNoOwner, "status", R"({"wait": true})", "unknown parameter [wait]"},
        BadCall{kNoOwner, "remove", "{}", "parameter [uids] is missing"},
        BadCall{kNoOwner, "remove", R"({"uids": []})",
                "parameter [uids] must hold at least one uid"},
        BadCall{kNoOwner, "remove", R"({"uids": 3000001})", kIds},
        BadCall{kNoOwner, "remove", R"({"uids": ["3000001"]})", kIds},
        BadCall{kNoOwner, "remove", R"({"uids": [3000001, null]})", kIds},
        BadCall{kNoOwner, "remove", R"({"uids": [-1]})", kIds},
        BadCall{kNoOwner, "remove", R"({"uids": [1.0]})", kIds},
        BadCall{kNoOwner, "remove", R"({"uids": [4294967296]})", kIds},
        BadCall{kNoOwner, "remove", R"({"uids": [1], "dry_run": "yes"})",
                "parameter [dry_run] must be true or false"},
        BadCall{kNoOwner, "remove", R"({"uids": [1], "dry_run": 1})",
                "parameter [dry_run] must be true or false"},
        BadCall{kNoOwner, "remove", R"({"uids": [1], "dryrun": true})",
                "unknown parameter [dryrun]"}));

INSTANTIATE_TEST_SUITE_P(
    Users, ParametersTest,
    testing::Values(BadCall{kUser, "details", R"({"names": []})",
                            "parameter [names] must hold at least one name"},
                    BadCall{kUser, "details", R"({"names": null})",
                            "parameter [names] must be an array of strings"},
                    BadCall{kUser, "details", R"({"names": [["a"]]})",
                            "parameter [names] must be an array of strings"},
                    BadCall{kUser, "details", R"({"name": "a"})", "unknown parameter [name]"},
                    BadCall{kUser, "details", "[]", "the parameters must be an object"},
                    BadCall{kUser, "clear_storage", "{}", "parameter [names] is missing"},
                    BadCall{kUser, "clear_storage", "null", "parameter [names] is missing"},
                    BadCall{kUser, "clear_storage", R"({"names": []})",
                            "parameter [names] must hold at least one name"},
                    BadCall{kUser, "clear_storage", R"({"names": "a"})",
                            "parameter [names] must be an array of strings"},
                    BadCall{kUser, "clear_storage", R"({"names": ["a\u0000b"]})",
                            "parameter [names] must be without NUL characters"},
                    BadCall{kUser, "clear_storage", R"({"names": ["a"], "dry_run": "yes"})",
                            "parameter [dry_run] must be true or false"},
                    BadCall{kUser, "clear_storage", R"({"names": ["a"], "dry_run": null})",
                            "parameter [dry_run] must be true or false"},
                    BadCall{kUser, "clear_storage", R"({"names": ["a"], "dryrun": true})",
                            "unknown parameter [dryrun]"}));

INSTANTIATE_TEST_SUITE_P(
    Groups, ParametersTest,
    testing::Values(
        BadCall{kGroup, "list", R"({"names": "a"})",
                "parameter [names] must be an array of strings"},
        BadCall{kGroup, "list", R"({"sort": "usage"})",
                "parameter [sort] must be one of name, limit, warning"},
        BadCall{kGroup, "list", R"({"direction": "down"})",
                "parameter [direction] must be one of ASC, DESC"},
        BadCall{kGroup, "list", R"({"offset": -1})",
                "parameter [offset] must be a whole number from 0 to 18446744073709551615"},
        BadCall{kGroup, "list", R"({"limit": 1.5})",
                "parameter [limit] must be a whole number from -9223372036854775808 to "
                "9223372036854775807"},
        BadCall{kGroup, "list", R"({"above": 5})", "unknown parameter [above]"},
        BadCall{kGroup, "set_quota", R"({"names": ["a"], "warning": 1})",
                "parameter [limit] is missing"},
        BadCall{kGroup, "set_quota", R"({"names": ["a"], "limit": 1})",
                "parameter [warning] is missing"},
        BadCall{kGroup, "set_quota", R"({"limit": 1, "warning": 1})",
                "parameter [names] is missing"},
        BadCall{kGroup, "set_quota", R"({"names": [], "limit": 1, "warning": 1})",
                "parameter [names] must hold at least one name"},
        BadCall{kGroup, "set_quota", R"({"names": ["a"], "limit": "1K", "warning": 1})", kUnsigned},
        BadCall{kGroup, "clear_quota", "{}", "parameter [names] is missing"},
        BadCall{kGroup, "clear_quota", R"({"names": []})",
                "parameter [names] must hold at least one name"},
        BadCall{kGroup, "clear_quota", R"({"names": ["a"], "limit": 1})",
                "unknown parameter [limit]"},
        BadCall{kGroup, "share_quota", "{}", "parameter [name] is missing"},
        BadCall{kGroup, "share_quota", R"({"name": ["a"]})", "parameter [name] must be a string"},
        BadCall{kGroup, "share_quota", R"({"name": "a\u0000"})",
                "parameter [name] must be without NUL characters"},
        BadCall{kGroup, "share_quota", R"({"names": ["a"]})", "unknown parameter [names]"}));

INSTANTIATE_TEST_SUITE_P(
    Privileges, ParametersTest,
    testing::Values(BadCall{kPrivilege, "grant", "{}", "parameter [names] is missing"},
                    BadCall{kPrivilege, "grant", R"({"names": []})",
                            "parameter [names] must hold at least one name"},
                    BadCall{kPrivilege, "grant", R"({"names": ["a"], "app": 5})",
                            "parameter [app] must be a string"},
                    BadCall{kPrivilege, "grant", R"({"names": ["a"], "app": null})",
                            "parameter [app] must be a string"},
                    BadCall{kPrivilege, "revoke", R"({"names": []})",
                            "parameter [names] must hold at least one name"},
                    BadCall{kPrivilege, "revoke", R"({"names": ["a"], "app": "b\u0000"})",
                            "parameter [app] must be without NUL characters"},
                    BadCall{kPrivilege, "revoke", R"({"names": ["a"], "application": "b"})",
                            "unknown parameter [application]"},
                    BadCall{kPrivilege, "list", R"({"names": ["a"]})",
                            "unknown parameter [names]"}));

}  // namespace
}  // namespace quillon::handlers
