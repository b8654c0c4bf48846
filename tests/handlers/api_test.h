#pragma once

#include <filesystem>
#include <map>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <json/value.h>
#include <json/writer.h>

#include <quillon/handlers/register.h>
#include <vela/api_runner.h>

#include "system/world.h"

namespace quillon::handlers {

/// Calls of one API, version 1, on a host of its own.
class APITest : public testing::Test {
 protected:
  explicit APITest(const char* api) : api_(api) { RegisterAll(); }

  Json::Value Exec(const char* method, const Json::Value& params) const {
    Json::Value response;
    VELA::APIRunner::Exec(response, api_, 1, method, params, "admin");
    return response;
  }

  Json::Value Data(const char* method, const Json::Value& params = Json::Value()) const {
    const Json::Value response = Exec(method, params);
    EXPECT_TRUE(response["success"].asBool()) << response;
    return response["data"];
  }

  /// The "error" of a call that fails.
  Json::Value Error(const char* method, const Json::Value& params = Json::Value()) const {
    const Json::Value response = Exec(method, params);
    EXPECT_FALSE(response["success"].asBool()) << response;
    return response["error"];
  }

  static Json::Value Array(const std::vector<std::string>& texts) {
    Json::Value array(Json::arrayValue);
    for (const std::string& text : texts) {
      array.append(text);
    }
    return array;
  }

  static Json::Value Selection(const std::vector<std::string>& names) {
    Json::Value params;
    params["names"] = Array(names);
    return params;
  }

  /// Answers "VELA.Core.Quota" in the host's place: these megabytes to a name, nothing to others.
  static void ScriptShareQuotas(const std::map<std::string, Json::UInt64>& megabytes) {
    VELA::APIRunner::Register("VELA.Core.Quota", 1, "get", [=](const Json::Value& params) {
      const bool is_group = params["subject_type"].asString() == "group";
      Json::Value answer;
      if (const auto quota = megabytes.find(params["name"].asString()); quota != megabytes.end()) {
        Json::Value& entry = answer[is_group ? "group_quota" : "user_quota"][0];
        entry["support_share_quota"] = true;
        entry["shares"][0]["name"] = "Quillon";
        entry["shares"][0]["quota"] = quota->second;
      }
      return answer;
    });
  }

  static void FailShareQuotas() {
    VELA::APIRunner::Register("VELA.Core.Quota", 1, "get", [](const Json::Value&) -> Json::Value {
      throw VELA::APIError(VELA::APIRunner::kHandlerFailed, "no quotas");
    });
  }

  /// Lets everybody read the host's files, but not look into the mail directories.
  void LetEverybodyIn() const {
    using std::filesystem::perms;
    std::filesystem::permissions(world_.folder().path(), perms(0755));
    if (const std::string spool = world_.folder() / "spool"; std::filesystem::exists(spool)) {
      std::filesystem::permissions(spool, perms(0700));
    }
  }

  const char* const api_;
  test::World world_;
};

}  // namespace quillon::handlers
