#include "clients.h"

#include <chrono>
#include <optional>
#include <thread>

#include <fmt/format.h>
#include <json/value.h>

#include "calls.h"

namespace quillon::soak {

namespace {

using Clock = std::chrono::steady_clock;
using test::WebAnswer;
using test::WebClient;

constexpr char kUser[] = "Quillon.MailServer.User";

// Whatever it was parsed as.
bool IsNumber(const Json::Value& value, unsigned long long number) {
  return value.isUInt64() && value.asUInt64() == number;
}

}  // namespace

Caller::Caller(const World& world, Tally& tally, std::size_t number)
    : world_(world),
      tally_(tally),
      number_(number),
      random_(static_cast<unsigned int>(number)),
      client_(world.server().Url(true)),
      token_(world.server().Token("boss")) {}

void Caller::Act() {
  if (Random(20) == 0) {
    client_ = WebClient(world_.server().Url(true));
  }
  const std::size_t choice = Random(100);
  if (choice < 46) {
    CallPlainly();
  } else if (choice < 52) {
    ReadNames();
  } else if (choice < 70) {
    ReadList();
  } else if (choice < 85) {
    ReadDetails();
  } else if (choice < 89) {
    ReadOwnerless();
  } else if (choice < 99) {
    SetQuota();
  } else {
    CountUsage();
  }
}

WebAnswer Caller::Call(const char* api, const char* method, const std::string& params) {
  return client_.Call(token_, CallText(api, method, params));
}

std::size_t Caller::SomeUser() { return Random(World::kUsers / 2); }

void Caller::CallPlainly() {
  const auto begin = Clock::now();
  const WebAnswer answer = client_.Call(token_, kPlainCall);
  tally_.AddTime(Clock::now() - begin);
  tally_.Count("plain", answer,
               answer.status == 200 &&
                   answer.envelope["data"]["https_port"] == world_.server().https_port());
}

void Caller::ReadNames() {
  const WebAnswer answer = Call(kUser, "names", "null");
  const Json::Value& names = answer.envelope["data"]["names"];
  bool is_right = answer.status == 200 && names.size() == World::kUsers;
  for (Json::ArrayIndex i = 0; is_right && i < names.size(); ++i) {
    is_right = names[i] == world_.names()[i];
  }
  tally_.Count("names", answer, is_right);
}

void Caller::ReadList() {
  const std::size_t user = SomeUser();
  const bool is_page = Random(2) == 0;
  const WebAnswer answer =
      Call(kUser, "list",
           is_page ? fmt::format(R"({{"sort":"usage","offset":{},"limit":50}})", user)
                   : fmt::format(R"({{"names":["{}"]}})", world_.names()[user]));
  const Json::Value& users = answer.envelope["data"]["users"];
  bool is_right = answer.status == 200 && users.size() == (is_page ? 50U : 1U);
  for (Json::ArrayIndex i = 0; is_right && i < users.size(); ++i) {
    // Those with a usage of 0 are users whose usage was counted.
    is_right = is_page ? i == 0 || users[i - 1]["usage"].asUInt64() <= users[i]["usage"].asUInt64()
                       : IsNumber(users[i]["usage"], World::UsageOf(user)) &&
                             IsNumber(users[i]["quota"], World::LimitOf(user));
  }
  tally_.Count("list", answer, is_right);
}

void Caller::ReadDetails() {
  const std::size_t user = SomeUser();
  const WebAnswer answer =
      Call(kUser, "details", fmt::format(R"({{"names":["{}"]}})", world_.names()[user]));
  const Json::Value& info = answer.envelope["data"]["users"][0];
  tally_.Count("details", answer,
               answer.status == 200 && info["name"] == world_.names()[user] &&
                   IsNumber(info["usage"], World::UsageOf(user)) &&
                   IsNumber(info["quota_limit"], World::LimitOf(user)));
}

void Caller::ReadOwnerless() {
  constexpr std::size_t kPage = 20;
  const WebAnswer answer =
      Call("Quillon.MailServer.NoOwner", "list",
           fmt::format(R"({{"offset":{},"limit":{}}})", Random(World::kOwnerless - kPage), kPage));
  const Json::Value& data = answer.envelope["data"];
  tally_.Count("no-owner", answer,
               answer.status == 200 && IsNumber(data["total"], World::kOwnerless) &&
                   data["no_owner_list"].size() == kPage);
}

// What was set is read back.
void Caller::SetQuota() {
  const std::string name =
      world_.names()[World::kUsers - 1 - kOwnUsers * number_ - Random(kOwnUsers)];
  // Never below the warnings that were there before.
  const unsigned long long limit = (200ULL + Random(1000)) << 26U;
  const WebAnswer set =
      Call(kUser, "set_quota",
           fmt::format(R"({{"names":["{}"],"limit":{},"warning":1048576}})", name, limit));
  if (!tally_.Count("set-quota", set, set.envelope["data"]["users"][0] == name)) {
    return;
  }
  const WebAnswer read = Call(kUser, "list", fmt::format(R"({{"names":["{}"]}})", name));
  tally_.Count("list", read, IsNumber(read.envelope["data"]["users"][0]["quota"], limit));
}

// Their mail directories are empty.
void Caller::CountUsage() {
  const std::string name = world_.names()[World::kUsers - 1 - kOwnUsers * number_];
  const WebAnswer answer =
      Call("Quillon.MailServer.Usage", "count", fmt::format(R"({{"names":["{}"]}})", name));
  const Json::Value& data = answer.envelope["data"];
  tally_.Count("count", answer,
               answer.status == 200 &&
                   (data["skipped"] == true || IsNumber(data["counted"][0]["usage"], 0)));
}

Visitor::Visitor(const World& world, Tally& tally, std::size_t number)
    : world_(world), tally_(tally), random_(static_cast<unsigned int>(1000 + number)) {}

void Visitor::Act() {
  switch (random_() % 4) {
    case 0:
      return Fail();
    case 1:
      return OutliveSession();
    default:
      EndSession();
  }
}

void Visitor::Fail() {
  const std::string name =
      random_() % 2 == 0 ? "watcher" : fmt::format("stranger{}", random_() % 50);
  const WebAnswer answer = WebClient(world_.server().Url(true)).Login(name, "a guess");
  tally_.Count("bad-login", answer, answer.status == 401);
}

void Visitor::EndSession() {
  WebClient client(world_.server().Url(true));
  const WebAnswer login = client.Login("watcher", test::kWebPassword);
  const std::string token = login.envelope["data"]["token"].asString();
  if (!tally_.Count("login", login, !token.empty())) {
    return;
  }
  const WebAnswer call = client.Call(token, kPlainCall);
  tally_.Count("plain", call, call.status == 200);
  const WebAnswer denied =
      client.Call(token, CallText(kUser, "clear_quota", R"({"names":["nobody"]})"));
  tally_.Count("denied", denied, denied.status == 403);
  const WebAnswer end = client.Call(token, CallText("VELA.Core.Login", "end", "null"));
  tally_.Count("end", end, end.status == 200);
  const WebAnswer late = client.Call(token, kPlainCall);
  tally_.Count("ended", late, late.status == 401);
}

void Visitor::OutliveSession() {
  WebClient client(world_.server().Url(true));
  const WebAnswer login = client.Login("watcher", test::kWebPassword, nullptr, 1);
  const std::string token = login.envelope["data"]["token"].asString();
  tally_.Count("login", login, !token.empty());
  std::this_thread::sleep_for(std::chrono::milliseconds(1100));
  const WebAnswer late = client.Call(token, kPlainCall);
  tally_.Count("expired", late, late.status == 401);
}

}  // namespace quillon::soak
