// The examples of docs/webapi.md, each sent to the web server of a host that was prepared as the
// document says, and its answer compared with the documented one.
#include <memory>
#include <set>
#include <stdexcept>
#include <string>
#include <utility>

#include <fmt/format.h>
#include <gtest/gtest.h>
#include <json/value.h>
#include <json/writer.h>

#include "support/parse_json.h"
#include "system/two_hosts.h"
#include "system/web_server.h"
#include "system/webapi_document.h"

namespace quillon::test {
namespace {

// A host with nothing but what every host has.
constexpr char kNoUsers[] =
    "root:x:0:0::/root:/bin/sh\n"
    "nobody:x:65534:65534::/nonexistent:/bin/false\n"
    "quillon-web:x:998:998::/nonexistent:/bin/false\n";
constexpr char kNoGroups[] = "root:x:0:\nnogroup:x:65534:\n";

// Undoes what the preparation and the examples have done.
constexpr char kReset[] = R"(
quillonctl user clear-storage --yes alice bob carol >/dev/null
quillonctl user clear-quota alice bob carol >/dev/null
quillonctl group clear-quota staff sales >/dev/null
rm -rf /var/spool/quillon /etc/quillon/app-privileges)";

std::string Preparation() {
  for (std::string& block : WebapiDocumentBlocks("sh")) {
    if (block.starts_with("cat >>/etc/group")) {
      return std::move(block);
    }
  }
  throw std::runtime_error("the document does not prepare a host");
}

std::string TypeOf(const Json::Value& value) {
  return value.isNumeric()  ? "a number"
         : value.isString() ? "a string"
         : value.isBool()   ? "true or false"
         : value.isNull()   ? "null"
                            : "more than one value";
}

// The document with types in place of the values of varying members.
Json::Value Comparable(Json::Value document, const std::set<std::string>& varying) {
  if (document.isArray()) {
    for (Json::Value& element : document) {
      element = Comparable(element, varying);
    }
  } else if (document.isObject()) {
    for (const std::string& name : document.getMemberNames()) {
      Json::Value& member = document[name];
      member = varying.contains(name) ? Json::Value(TypeOf(member)) : Comparable(member, varying);
    }
  }
  return document;
}

class WebapiExamplesTest : public TwoHostsTest {
 protected:
  void SetUp() override {
    TwoHostsTest::SetUp();
    if (IsSkipped()) {
      return;
    }
    hosts_ = std::make_unique<TwoHosts>();
    Shell("mount -t tmpfs none /var/spool && mkdir -m 1777 /run/lock");
    hosts_->a.Quillonctl({"host", "trust", "--yes", "hostb"});
    boss_ = TokenOf("boss");
    watcher_ = TokenOf("watcher");
  }

  void Prepare() {
    if (is_prepared_) {
      Shell(kReset);
    }
    hosts_->b.machine().Write("/etc/passwd", kNoUsers);
    hosts_->b.machine().Write("/etc/group", kNoGroups);
    Shell(Preparation());
    is_prepared_ = true;
  }

  WebAnswer Call(const std::string& token, const Json::Value& request) const {
    const Outcome outcome = hosts_->a.Shell(
        fmt::format("curl --silent --cacert {} --header 'Content-Type: application/json' --header "
                    "'Authorization: Bearer {}' --write-out ' %{{http_code}}' --data-binary @- "
                    "https://hostb:5001/webapi",
                    kCertificateOfB, token),
        Json::FastWriter().write(request));
    const std::size_t status = outcome.output.rfind(' ');
    WebAnswer answer;
    answer.text = outcome.output.substr(0, status);
    answer.status = std::stoi(outcome.output.substr(status));
    answer.envelope = Parse(answer.text);
    return answer;
  }

  // A method is tried as a monitor first, who may call it or gets no further.
  void Try(const DocumentedMethod& method) const {
    for (const WebapiExample& example : method.examples) {
      EXPECT_EQ(example.request["api"], method.api);
      EXPECT_EQ(example.request["method"], method.method);
      if (!method.is_for_monitors) {
        ExpectRefusal(Call(watcher_, example.request), 403);
      }
      const WebAnswer answer = Call(method.is_for_monitors ? watcher_ : boss_, example.request);
      EXPECT_EQ(answer.status, 200);
      EXPECT_EQ(Comparable(example.answer, example.varying).toStyledString(),
                Comparable(answer.envelope, example.varying).toStyledString())
          << "the answer is " << answer.text;
      if (method.method == "refresh") {
        AwaitRecount(answer.envelope["data"]["generation"].asUInt64());
      }
    }
  }

 private:
  void Shell(const std::string& lines) const {
    const Outcome outcome = hosts_->b.Shell(lines);
    if (outcome.exit_code != 0) {
      throw std::runtime_error(lines + ": " + outcome.error);
    }
  }

  // It goes on behind its answer, and would keep other counts from beginning.
  void AwaitRecount(Json::UInt64 generation) const {
    const Json::Value status =
        Parse(R"({"api": "Quillon.MailServer.NoOwner", "version": 1, "method": "status"})");
    EXPECT_TRUE(Eventually([&] {
      const Json::Value data = Call(boss_, status).envelope["data"];
      return data["generation"].asUInt64() > generation && data["running"] == false;
    }));
  }

  std::string TokenOf(const std::string& account) const {
    std::string token = hosts_->a.As(account, {"token", "hostb"}).output;
    token.pop_back();
    return token;
  }

  std::unique_ptr<TwoHosts> hosts_;
  std::string boss_;
  std::string watcher_;
  bool is_prepared_ = false;
};

TEST_F(WebapiExamplesTest, AreAnsweredAsDocumented) {
  bool is_to_prepare = true;
  for (const DocumentedMethod& method : DocumentedMethods()) {
    SCOPED_TRACE(method.api + " " + method.method);
    EXPECT_FALSE(method.examples.empty());
    if (is_to_prepare) {
      ASSERT_NO_THROW(Prepare());
    }
    Try(method);
    is_to_prepare = !method.is_for_monitors;  // who change nothing
  }
}

}  // namespace
}  // namespace quillon::test
