// Every allocation that a worker of the web server makes for a request fails in turn.
#include <algorithm>
#include <iostream>
#include <memory>
#include <optional>
#include <regex>
#include <string>
#include <vector>

#include <fmt/format.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <json/reader.h>
#include <json/value.h>

#include "faults/campaign.h"
#include "faults/host.h"
#include "faults/worker.h"

namespace quillon::test {
namespace {

// A request, as text and uploads; of two that undo each other, both.
struct Request {
  std::string name;
  std::vector<std::string> parts;
  std::vector<std::string> opposite = {};
  /// Two right answers to it may differ.
  bool is_unsteady = false;
  /// It leaves out what it cannot find out, which it logs.
  bool may_leave_out = false;
  /// What it may say in the place of `grant` when it cannot find out, which it logs.
  std::string denial = {};
  std::string grant = {};
  /// It can be done once only, so that each time everything begins anew.
  std::set<std::string> doomed = {};
};

std::ostream& operator<<(std::ostream& out, const Request& request) { return out << request.name; }

std::string Text(const std::string& api, const std::string& method,
                 const std::string& params = "{}") {
  return fmt::format(R"({{"api":"{}","version":1,"method":"{}","params":{}}})", api, method,
                     params);
}

std::string Import(unsigned limit) {
  std::string rows;
  for (unsigned i = 0; i < Host::kUsers; ++i) {
    rows += fmt::format("user{:02},{}M,1M\n", i, limit + i % Host::kGroups);
  }
  return rows;
}

std::vector<Request> Requests() {
  const std::string user = "Quillon.MailServer.User";
  const std::string group = "Quillon.MailServer.Group";
  const std::string privilege = "Quillon.MailServer.Privilege";
  const std::string no_owner = "Quillon.MailServer.NoOwner";
  const std::string import = Text("Quillon.MailServer.Quota", "import");
  const std::string names = R"({"names":["alice","bob","carol"])";
  return {
      {.name = "ListUsers", .parts = {Text(user, "list")}},
      {.name = "NamesOfUsers", .parts = {Text(user, "names")}},
      {.name = "DetailsOfUsers",
       .parts = {Text(user, "details", names + "}")},
       .denial = R"("has_app_privilege":false)",
       .grant = R"("has_app_privilege":true)"},
      {.name = "SetQuota",
       .parts = {Text(user, "set_quota", names + R"(,"limit":8192,"warning":4096})")},
       .opposite = {Text(user, "set_quota", names + R"(,"limit":2048,"warning":1024})")}},
      {.name = "ClearQuota",
       .parts = {Text(user, "clear_quota", names + "}")},
       .opposite = {Text(user, "set_quota", names + R"(,"limit":2048,"warning":1024})")}},
      {.name = "ImportQuota",
       .parts = {import, "file", Import(100)},
       .opposite = {import, "file", Import(200)}},
      {.name = "ListGroups", .parts = {Text(group, "list")}},
      {.name = "SetGroupQuota",
       .parts = {Text(group, "set_quota", R"({"names":["users"],"limit":8192,"warning":4096})")},
       .opposite = {Text(group, "set_quota",
                         R"({"names":["users"],"limit":2048,"warning":1024})")}},
      {.name = "ShareQuotaOfGroup", .parts = {Text(group, "share_quota", R"({"name":"users"})")}},
      {.name = "ListPrivileges", .parts = {Text(privilege, "list")}},
      {.name = "RevokePrivilege",
       .parts = {Text(privilege, "revoke", names + "}")},
       .opposite = {Text(privilege, "grant", names + "}")}},
      {.name = "CountUsage", .parts = {Text("Quillon.MailServer.Usage", "count", names + "}")}},
      {.name = "ListOwnerless", .parts = {Text(no_owner, "list")}, .may_leave_out = true},
      {.name = "StatusOfOwnerless", .parts = {Text(no_owner, "status")}, .is_unsteady = true},
      {.name = "RefreshOwnerless", .parts = {Text(no_owner, "refresh")}, .is_unsteady = true},
      {.name = "RemoveOwnerless",
       .parts = {Text(no_owner, "remove", fmt::format(R"({{"uids":[{}]}})", Host::kUidOfDora))},
       .doomed = {Host::kDora}},
      {.name = "ClearStorage",
       .parts = {Text(user, "clear_storage", R"({"names":["bob"]})")},
       .doomed = {"bob"}},
      {.name = "Utilization",
       .parts = {Text("VELA.Core.System.Utilization", "get")},
       .is_unsteady = true},
      {.name = "Ports", .parts = {Text("VELA.Core.Web.TARN", "get")}},
      {.name = "NoSuchApi", .parts = {Text("None", "get")}},
  };
}

// Whether an answer is a success; nothing when it is no envelope.
std::optional<bool> Success(const std::string& text) {
  Json::Value envelope;
  Json::CharReaderBuilder builder;
  Json::CharReaderBuilder::strictMode(&builder.settings_);
  const std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
  if (!reader->parse(text.data(), text.data() + text.size(), &envelope, nullptr) ||
      !envelope.isObject() || !envelope["success"].isBool()) {
    return std::nullopt;
  }
  return envelope["success"].asBool();
}

constexpr char kEnded[] = "the worker ended";

class MemoryFaultsTest : public testing::TestWithParam<Request> {
 protected:
  MemoryFaultsTest() {
    for (const Arguments& arguments : std::vector<Arguments>{
             {"user", "set-quota", "--limit", "2K", "--warning", "1K", "alice", "bob", "carol"},
             {"group", "set-quota", "--limit", "2K", "--warning", "1K", "users"},
             {"privilege", "revoke", "user07"},
             {"no-owner", "refresh", "--wait"}}) {
      EXPECT_EQ(host_.Run(arguments).exit_code, 0);
    }
    host_.Keep(request_.doomed);
    if (!request_.opposite.empty()) {
      sides_.push_back({request_.opposite});
    }
    for (Side& side : sides_) {
      StartWorker();
      side.answer = AnswerTo(side);
      side.state = host_.Look();
    }
  }

  void TryAll(const char* kind, unsigned most, bool is_cold);

 private:
  using Arguments = std::vector<std::string>;

  // What is asked, what is answered, and what the stores hold then.
  struct Side {
    std::vector<std::string> parts;
    std::string answer = {};
    State state = {};
  };

  void StartWorker() {
    worker_.reset();
    worker_ = std::make_unique<Worker>(host_.world().configuration_file(),
                                       host_.FaultEnvironment(FAILING_MEMORY));
  }

  std::string AnswerTo(const Side& side) {
    const auto frame = worker_->Ask(side.parts);
    return frame ? frame->parts.front() : kEnded;
  }

  // Asks it when nothing fails. Where memory ends at the very end of loading a name service's
  // module, the C library takes it for loaded from then on, and its next use ends the worker.
  void ExpectAnswer(const Side& side, const std::string& earlier_answer = "") {
    std::string answer = AnswerTo(side);
    if (answer == kEnded && earlier_answer.find("libnss_") != std::string::npos) {
      ++late_deaths_;
      StartWorker();
      answer = AnswerTo(side);
    }
    host_.WaitForAll(worker_->pid());
    if (request_.is_unsteady) {
      EXPECT_EQ(Success(answer), true) << answer;
    } else {
      EXPECT_EQ(answer, side.answer);
    }
    if (!request_.is_unsteady) {
      EXPECT_EQ(host_.Look(), side.state);
    }
  }

  // Has the stores hold what they did before, and the worker work under a plan: from its start, or
  // from its next request.
  void Begin(bool is_cold, const Side& before, unsigned ordinal) {
    if (!request_.doomed.empty()) {
      host_.Reset();
    }
    if (sides_.size() > 1) {
      ExpectAnswer(before);
    }
    host_.ClearLog();
    host_.plan().Set(Fault::kNoMemory, ordinal);
    if (is_cold) {
      StartWorker();
    }
  }

  void TryOne(unsigned ordinal, bool is_cold);
  void ExpectSoundness(const Side& asked, const Side& before, bool has_succeeded);

  Host host_;
  const Request request_ = GetParam();
  std::vector<Side> sides_ = {{request_.parts}};
  std::unique_ptr<Worker> worker_;
  unsigned faults_ = 0;
  unsigned errors_ = 0;
  unsigned deaths_ = 0;
  unsigned gaps_ = 0;
  unsigned late_deaths_ = 0;
};

void MemoryFaultsTest::ExpectSoundness(const Side& asked, const Side& before, bool has_succeeded) {
  const State now = host_.Look();
  for (const auto& [account, mail] : host_.mail()) {
    if (!request_.doomed.contains(account)) {
      EXPECT_EQ(host_.MailOf(account), mail) << "mail of " << account << " has changed";
    }
  }
  if (request_.is_unsteady || !request_.doomed.empty()) {
    return;
  }
  for (const State* state : {&now, &asked.state, &before.state}) {
    for (const auto& [unit, ignored] : *state) {
      const auto value = [&unit = unit](const State& of) {
        const auto found = of.find(unit);
        return found == of.end() ? "" : found->second;
      };
      if (has_succeeded) {
        EXPECT_EQ(value(now), value(asked.state)) << unit << ": not done, in spite of the success";
      } else {
        EXPECT_THAT(value(now), testing::AnyOf(value(asked.state), value(before.state)))
            << unit << ": in part";
      }
    }
  }
}

void MemoryFaultsTest::TryOne(unsigned ordinal, bool is_cold) {
  const Side& asked = sides_[ordinal % sides_.size()];
  const Side& before = sides_[(ordinal + 1) % sides_.size()];
  Begin(is_cold, before, ordinal);
  std::optional<webapid::Frame> answer;
  try {
    answer = worker_->Ask(asked.parts);
  } catch (const std::exception& error) {
    ADD_FAILURE() << "allocation " << ordinal << (is_cold ? " of a new worker: " : ": ")
                  << error.what();
    host_.plan().Clear();
    StartWorker();
    return;
  }
  host_.WaitForAll(worker_->pid());
  FaultPlan& plan = host_.plan();
  plan.Clear();
  if (plan.failed == 0) {
    return;
  }
  ++faults_;
  std::string text = answer ? answer->parts.front() : kEnded;
  const bool has_succeeded = answer && Success(text) == true && request_.name != "NoSuchApi";
  SCOPED_TRACE(fmt::format("allocation {} of {}{}: {}", ordinal, plan.calls,
                           is_cold ? " of a new worker" : "", text));
  if (answer) {
    EXPECT_TRUE(Success(text).has_value()) << "no envelope";
    errors_ += has_succeeded ? 0 : 1;
  } else {
    ++deaths_;
    StartWorker();
  }
  if (!request_.denial.empty() && text.find(request_.denial) != std::string::npos) {
    ++gaps_;
    EXPECT_THAT(host_.Log(), testing::Not(testing::IsEmpty())) << "a denial that is not logged";
    text = std::regex_replace(text, std::regex(request_.denial), request_.grant);
  }
  if (has_succeeded && request_.may_leave_out && text != asked.answer) {
    ++gaps_;
    EXPECT_THAT(host_.Log(), testing::Not(testing::IsEmpty())) << "a gap that is not logged";
  } else if (has_succeeded && !request_.doomed.empty() && text != asked.answer) {
    ++gaps_;
    EXPECT_THAT(text, testing::AnyOf(testing::HasSubstr(R"("removed":[])"),
                                     testing::HasSubstr(R"("usage":null)")))
        << "a wrong success";
    EXPECT_THAT(host_.Log(), testing::Not(testing::IsEmpty())) << "a gap that is not logged";
  } else if (has_succeeded && !request_.is_unsteady) {
    EXPECT_EQ(text, asked.answer) << "a wrong success";
  }
  ExpectSoundness(asked, before, has_succeeded);
  if (request_.doomed.empty()) {
    ExpectAnswer(asked, text);
  }
}

// At most so many, spread evenly, at places that the seed decides.
void MemoryFaultsTest::TryAll(const char* kind, unsigned most, bool is_cold) {
  faults_ = errors_ = deaths_ = gaps_ = late_deaths_ = 0;
  Begin(is_cold, sides_.back(), 0);
  AnswerTo(sides_.front());
  host_.plan().Clear();
  host_.WaitForAll(worker_->pid());
  const unsigned count = host_.plan().calls;
  ASSERT_GT(count, 0U) << "nothing that could fail was seen";
  const unsigned step = std::max(1U, (count + most - 1) / most);
  std::mt19937_64 random = RandomNumbers();
  for (unsigned begin = 1; begin <= count; begin += step) {
    TryOne(begin + static_cast<unsigned>(random() % step), is_cold);
  }
  std::cout << fmt::format(
      "{}: {}: {} of {} allocations failed: {} errors answered, {} workers ended{}{}\n",
      request_.name, kind, faults_, count, errors_, deaths_,
      late_deaths_ == 0 ? "" : fmt::format(", {} at the next request", late_deaths_),
      gaps_ == 0 ? "" : fmt::format(", {} answers fell short and said so", gaps_));
}

TEST_P(MemoryFaultsTest, AnswersAreRightOrErrors) {
  constexpr unsigned kAll = 100'000;
  const bool is_long = TheCampaign().is_long;
  if (GetParam().doomed.empty()) {
    TryAll("a worker at work", is_long ? kAll : 40, false);
  }
  TryAll("a new worker", is_long ? kAll : 10, true);
}

INSTANTIATE_TEST_SUITE_P(, MemoryFaultsTest, testing::ValuesIn(Requests()),
                         testing::PrintToStringParamName());

}  // namespace
}  // namespace quillon::test
