#include <gsasl.h>

#include <algorithm>
#include <list>
#include <map>
#include <new>
#include <stdexcept>
#include <string_view>
#include <utility>

#include <fmt/format.h>

#include <quillon/platform/client_network.h>
#include <quillon/platform/login_server.h>
#include <quillon/platform/login_throttle.h>
#include <quillon/platform/printable.h>

#include "utils/base64.h"
#include "utils/excerpt.h"
#include "utils/random_bytes.h"
#include "utils/sha256.h"

namespace quillon::platform {

namespace {

constexpr std::size_t kLoginBytes = 16;
constexpr std::size_t kSecretBytes = 32;

// Accounts by name, and made-up ones for all other names.
class Directory {
 public:
  explicit Directory(std::vector<WebAccount> accounts) { Replace(std::move(accounts)); }

  // Answers the names of those that are gone or not the same any more.
  std::vector<std::string> Replace(std::vector<WebAccount> accounts) {
    std::map<std::string, WebAccount> next;
    iterations_.clear();
    for (WebAccount& account : accounts) {
      iterations_.push_back(account.iterations);
      const std::string name = account.name;
      next.emplace(name, std::move(account));
    }
    std::vector<std::string> changed;
    for (const auto& [name, account] : accounts_) {
      const auto found = next.find(name);
      if (found == next.end() || !(found->second == account)) {
        changed.push_back(name);
      }
    }
    accounts_.swap(next);
    return changed;
  }

  // Null for a name without an account.
  const WebAccount* Find(const std::string& name) const {
    const auto found = accounts_.find(name);
    return found == accounts_.end() ? nullptr : &found->second;
  }

  // Looks like a real account, is the same at every try, and nobody can log in to it: its keys are
  // those of no password.
  WebAccount MakeUp(const std::string& name) const {
    WebAccount account;
    account.name = name;
    account.iterations = MadeUpIterations(name);
    account.salt = EncodeBase64(MadeUpBytes("salt", name).substr(0, kWebSaltBytes));
    account.stored_key.Set(EncodeBase64(MadeUpBytes("stored key", name)));
    account.server_key.Set(EncodeBase64(MadeUpBytes("server key", name)));
    return account;
  }

 private:
  std::string MadeUpBytes(std::string_view what, const std::string& name) const {
    return HmacSha256(secret_.Get(), fmt::format("{}:{}", what, name));
  }

  // Those of one of the accounts: where they differ, so do those of other names.
  unsigned MadeUpIterations(const std::string& name) const {
    if (iterations_.empty()) {
      return kWebIterations;
    }
    const std::string bytes = MadeUpBytes("iterations", name);
    std::size_t number = 0;
    for (std::size_t i = 0; i < sizeof(number); ++i) {
      number = number << 8U | static_cast<unsigned char>(bytes[i]);
    }
    return iterations_[number % iterations_.size()];
  }

  Secret secret_ = Secret(RandomBytes(kSecretBytes));
  std::map<std::string, WebAccount> accounts_;
  std::vector<unsigned> iterations_;
};

struct DeleteLibrary {
  void operator()(Gsasl* library) const { ::gsasl_done(library); }
};

struct DeleteSession {
  void operator()(Gsasl_session* session) const { ::gsasl_finish(session); }
};

using Library = std::unique_ptr<Gsasl, DeleteLibrary>;
using Session = std::unique_ptr<Gsasl_session, DeleteSession>;

// What the library has is copied to its session; a callback answers what it asks for.
int GiveAccount(Gsasl* library, Gsasl_session* session, Gsasl_property property) {
  if (property != GSASL_SCRAM_ITER && property != GSASL_SCRAM_SALT &&
      property != GSASL_SCRAM_STOREDKEY && property != GSASL_SCRAM_SERVERKEY) {
    return GSASL_NO_CALLBACK;
  }
  const char* const name = ::gsasl_property_fast(session, GSASL_AUTHID);
  if (name == nullptr) {
    return GSASL_NO_AUTHID;
  }
  try {
    const auto& directory = *static_cast<const Directory*>(::gsasl_callback_hook_get(library));
    const WebAccount* const account = directory.Find(name);
    const WebAccount made_up = directory.MakeUp(name);  // always, for it takes time
    const WebAccount& used = account != nullptr ? *account : made_up;
    const auto set = [session](Gsasl_property which, const std::string& value) {
      return ::gsasl_property_set(session, which, value.c_str()) == GSASL_OK;
    };
    const bool is_set = set(GSASL_SCRAM_ITER, std::to_string(used.iterations)) &&
                        set(GSASL_SCRAM_SALT, used.salt) &&
                        set(GSASL_SCRAM_STOREDKEY, used.stored_key.Get()) &&
                        set(GSASL_SCRAM_SERVERKEY, used.server_key.Get());
    return is_set ? GSASL_OK : GSASL_MALLOC_ERROR;
  } catch (const std::exception&) {  // which must not pass through the library
    return GSASL_CRYPTO_ERROR;
  }
}

Library StartLibrary(Directory& directory) {
  Gsasl* library = nullptr;
  if (::gsasl_init(&library) != GSASL_OK) {
    throw std::bad_alloc();
  }
  ::gsasl_callback_set(library, GiveAccount);
  ::gsasl_callback_hook_set(library, &directory);
  return Library(library);
}

Session StartSession(Gsasl* library) {
  Gsasl_session* session = nullptr;
  const int result = ::gsasl_server_start(library, kWebLoginMechanism, &session);
  if (result != GSASL_OK) {
    throw std::runtime_error(fmt::format("{}: {}", kWebLoginMechanism, ::gsasl_strerror(result)));
  }
  return Session(session);
}

// What the library makes of a message: its answer in base64.
struct Step {
  int result;
  std::string answer;
};

Step Take(Gsasl_session* session, const std::string& message) {
  char* answer = nullptr;
  const int result = ::gsasl_step64(session, message.c_str(), &answer);
  const std::unique_ptr<char, decltype(&::gsasl_free)> owner(answer, ::gsasl_free);
  return {result, answer == nullptr ? std::string() : std::string(answer)};
}

std::string Property(Gsasl_session* session, Gsasl_property property) {
  const char* const value = ::gsasl_property_fast(session, property);
  return value == nullptr ? std::string() : std::string(value);
}

// A message for the library, which reads it up to a NUL byte only.
bool IsMessage(const std::string& text) {
  return !text.empty() && text.size() <= LoginServer::kLongestMessage &&
         text.find('\0') == std::string::npos;
}

std::string Quoted(const std::string& name) { return '"' + Printable(Excerpt(name, 64)) + '"'; }

LoginRefusal Throttled(const std::string& account, std::chrono::seconds wait) {
  return {fmt::format("too many failed logins as {}, {} seconds to wait", Quoted(account),
                      wait.count()),
          wait};
}

LoginRefusal Refused(const std::string& reason) { return {reason, std::chrono::seconds(0)}; }

}  // namespace

class LoginServer::Logins {
 public:
  Logins(std::vector<WebAccount> accounts, int allowed_failures)
      : directory_(std::move(accounts)),
        throttle_(allowed_failures),
        library_(StartLibrary(directory_)) {}

  std::vector<std::string> UseAccounts(std::vector<WebAccount> accounts) {
    std::vector<std::string> changed = directory_.Replace(std::move(accounts));
    half_open_.remove_if([&](const HalfOpen& login) {
      return std::find(changed.begin(), changed.end(), login.account) != changed.end();
    });
    return changed;
  }

  std::variant<LoginChallenge, LoginRefusal> Start(const std::string& address,
                                                   const std::string& message, Time now) {
    DropExpired(now);
    if (!IsMessage(message)) {
      return Refused("a first message that is none");
    }
    Session session = StartSession(library_.get());
    Step step = Take(session.get(), message);
    if (step.result != GSASL_NEEDS_MORE) {
      return Refused(
          fmt::format("a first message that is none ({})", ::gsasl_strerror_name(step.result)));
    }
    std::string account = Property(session.get(), GSASL_AUTHID);
    const std::string acting_as = Property(session.get(), GSASL_AUTHZID);
    if (!acting_as.empty() && acting_as != account) {
      return Refused(fmt::format("{} asks to act as {}", Quoted(account), Quoted(acting_as)));
    }
    if (const auto wait = throttle_.Wait(account, address, now); wait.count() > 0) {
      return Throttled(account, wait);
    }
    MakeRoom(address);
    half_open_.push_back({EncodeBase64Url(RandomBytes(kLoginBytes)), std::move(session),
                          std::move(account), ClientNetwork(address), now + kHalfOpenLife});
    return LoginChallenge{half_open_.back().id, std::move(step.answer)};
  }

  std::variant<LoginSuccess, LoginRefusal> Finish(const std::string& address, const std::string& id,
                                                  const std::string& message, Time now) {
    DropExpired(now);
    const auto found = std::find_if(half_open_.begin(), half_open_.end(),
                                    [&](const HalfOpen& login) { return login.id == id; });
    if (found == half_open_.end()) {
      return Refused("a login that was not started, is over or took too long");
    }
    const HalfOpen login = std::move(*found);
    half_open_.erase(found);
    // Of many that were started at once, too, only the allowed number may fail.
    if (const auto wait = throttle_.Wait(login.account, address, now); wait.count() > 0) {
      return Throttled(login.account, wait);
    }
    Step step{GSASL_AUTHENTICATION_ERROR, ""};
    if (IsMessage(message)) {
      step = Take(login.session.get(), message);
    }
    const WebAccount* const account = directory_.Find(login.account);
    if (step.result != GSASL_OK || account == nullptr) {
      throttle_.CountFailure(login.account, address, now);
      return Refused(fmt::format("{} {}", account == nullptr ? "no account" : "wrong password for",
                                 Quoted(login.account)));
    }
    throttle_.CountSuccess(login.account, address);
    return LoginSuccess{std::move(step.answer), account->name, account->role};
  }

 private:
  struct HalfOpen {
    std::string id;
    Session session;
    std::string account;
    std::string network;
    Time deadline;
  };

  void DropExpired(Time now) {
    while (!half_open_.empty() && half_open_.front().deadline <= now) {
      half_open_.pop_front();
    }
  }

  // Somebody who starts many and finishes none pushes out his own first.
  void MakeRoom(const std::string& address) {
    const std::string network = ClientNetwork(address);
    const auto is_from_there = [&](const HalfOpen& login) { return login.network == network; };
    const auto count = std::count_if(half_open_.begin(), half_open_.end(), is_from_there);
    if (static_cast<std::size_t>(count) >= kMostHalfOpenPerAddress) {
      half_open_.erase(std::find_if(half_open_.begin(), half_open_.end(), is_from_there));
    } else if (half_open_.size() >= kMostHalfOpen) {
      half_open_.pop_front();
    }
  }

  Directory directory_;
  LoginThrottle throttle_;
  Library library_;
  // In the order of their deadlines. Their sessions end before the library does.
  std::list<HalfOpen> half_open_;
};

LoginServer::LoginServer(std::vector<WebAccount> accounts, int allowed_failures)
    : logins_(std::make_unique<Logins>(std::move(accounts), allowed_failures)) {}

LoginServer::~LoginServer() = default;

std::vector<std::string> LoginServer::UseAccounts(std::vector<WebAccount> accounts) {
  return logins_->UseAccounts(std::move(accounts));
}

std::variant<LoginChallenge, LoginRefusal> LoginServer::Start(const std::string& address,
                                                              const std::string& message,
                                                              Time now) {
  return logins_->Start(address, message, now);
}

std::variant<LoginSuccess, LoginRefusal> LoginServer::Finish(const std::string& address,
                                                             const std::string& login,
                                                             const std::string& message, Time now) {
  return logins_->Finish(address, login, message, now);
}

}  // namespace quillon::platform
