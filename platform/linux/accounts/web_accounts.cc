#include <gsasl.h>

#include <algorithm>
#include <array>
#include <optional>
#include <unordered_set>
#include <utility>

#include <fmt/format.h>

#include <quillon/platform/replace_file.h>
#include <quillon/platform/web_accounts.h>

#include "utils/base64.h"
#include "utils/change_lock.h"
#include "utils/decimal.h"
#include "utils/file_text.h"
#include "utils/random_bytes.h"
#include "utils/salted_password.h"

namespace quillon::platform {

namespace {

using velamailserver::velasdk::FileLockGuard;

// Fewer, and clients refuse to log in; more, and a login keeps its client busy for seconds.
constexpr unsigned kFewestIterations = 4096;
constexpr unsigned kMostIterations = 1000000;

constexpr std::size_t kLongestName = 64;
constexpr std::size_t kLargestFile = std::size_t{1024} * 1024;

bool IsLetterOrDigit(char c) {
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9');
}

bool IsName(std::string_view name) {
  return !name.empty() && name.size() <= kLongestName && IsLetterOrDigit(name.front()) &&
         std::all_of(name.begin(), name.end(),
                     [](char c) { return IsLetterOrDigit(c) || c == '.' || c == '_' || c == '-'; });
}

bool IsBase64Of(std::size_t bytes, std::string_view text) {
  auto value = DecodeBase64(text);
  if (!value) {
    return false;
  }
  const bool has_length = value->size() == bytes;
  Wipe(*value);
  return has_length;
}

// An account and where its line is in the text, the line's end included.
struct Entry {
  WebAccount account;
  std::size_t begin;
  std::size_t end;
};

// Reads the text of a file, line by line.
class Parser {
 public:
  Parser(std::string_view text, const std::string& path) : text_(text), path_(path) {}

  std::vector<Entry> Parse() {
    std::vector<Entry> entries;
    std::unordered_set<std::string_view> names;
    for (std::size_t begin = 0; begin < text_.size();) {
      ++line_;
      const std::size_t end = std::min(text_.find('\n', begin), text_.size());
      const std::string_view line = text_.substr(begin, end - begin);
      const std::size_t next = std::min(end + 1, text_.size());
      if (line.find_first_not_of(" \t") != std::string_view::npos && line.front() != '#') {
        entries.push_back({ParseLine(line), begin, next});
        if (!names.insert(line.substr(0, line.find(':'))).second) {
          Fail("there is an account of this name above");
        }
      }
      begin = next;
    }
    return entries;
  }

 private:
  // Never quotes the line: it may hold keys.
  [[noreturn]] void Fail(const std::string& problem) const {
    throw WebAccountsError(fmt::format("{}:{}: {}", path_, line_, problem));
  }

  WebAccount ParseLine(std::string_view line) const {
    const auto [name, role, mechanism, iterations, salt, stored_key, server_key] = Split(line);
    if (!IsName(name)) {
      Fail("is not the name of an account");
    }
    const auto parsed_role = ParseWebRole(role);
    if (!parsed_role) {
      Fail("the role must be admin or monitor");
    }
    if (mechanism != kWebLoginMechanism) {
      Fail(fmt::format("the third field must be {}", kWebLoginMechanism));
    }
    const auto count = ParseDecimal<unsigned>(iterations);
    if (!count || *count < kFewestIterations || *count > kMostIterations) {
      Fail(fmt::format("the iterations must be from {} to {}", kFewestIterations, kMostIterations));
    }
    if (!IsBase64Of(kWebSaltBytes, salt)) {
      Fail(fmt::format("the salt must be {} bytes in base64", kWebSaltBytes));
    }
    if (!IsBase64Of(GSASL_HASH_SHA256_SIZE, stored_key) ||
        !IsBase64Of(GSASL_HASH_SHA256_SIZE, server_key)) {
      Fail(fmt::format("a key must be {} bytes in base64", int{GSASL_HASH_SHA256_SIZE}));
    }
    return {std::string(name), *parsed_role,       *count,
            std::string(salt), Secret(stored_key), Secret(server_key)};
  }

  std::array<std::string_view, 7> Split(std::string_view line) const {
    std::array<std::string_view, 7> fields;
    if (std::count(line.begin(), line.end(), ':') != fields.size() - 1) {
      Fail(fmt::format("an account has {} fields with colons between them", fields.size()));
    }
    for (std::string_view& field : fields) {
      field = line.substr(0, line.find(':'));
      line.remove_prefix(std::min(field.size() + 1, line.size()));
    }
    return fields;
  }

  std::string_view text_;
  const std::string& path_;
  int line_ = 0;
};

Secret FormatLine(const WebAccount& account) {
  return Secret::Take(fmt::format("{}:{}:{}:{}:{}:{}:{}\n", account.name, WebRoleName(account.role),
                                  kWebLoginMechanism, account.iterations, account.salt,
                                  account.stored_key.Get(), account.server_key.Get()));
}

// What the library writes key material to.
struct Keys {
  Keys() = default;
  Keys(const Keys&) = delete;
  Keys& operator=(const Keys&) = delete;
  ~Keys() { ::explicit_bzero(this, sizeof(*this)); }

  using Key = std::array<char, GSASL_HASH_SHA256_SIZE>;
  Key client_key;
  Key server_key;
  Key stored_key;
};

Secret Base64Secret(const Keys::Key& key) {
  return Secret::Take(EncodeBase64({key.data(), key.size()}));
}

std::size_t CountCharacters(const std::string& utf8) {
  return static_cast<std::size_t>(std::count_if(utf8.begin(), utf8.end(), [](char c) {
    return (static_cast<unsigned char>(c) & 0xc0) != 0x80;
  }));
}

// Sets what checks a login.
void SetPassword(WebAccount& account, const Secret& password) {
  if (CountCharacters(password.Get()) < kShortestWebPassword) {
    throw WebAccountsError(
        fmt::format("the password must have {} characters at least", kShortestWebPassword));
  }
  const std::string salt = RandomBytes(kWebSaltBytes);
  const auto salted = SaltedPassword(password, salt, kWebIterations);
  if (!salted) {
    throw WebAccountsError(std::string("the password ") + kPasswordText);
  }
  Keys keys{};
  const int result = ::gsasl_scram_secrets_from_salted_password(
      GSASL_HASH_SHA256, salted->Get().data(), keys.client_key.data(), keys.server_key.data(),
      keys.stored_key.data());
  if (result != GSASL_OK) {
    throw WebAccountsError(std::string("the password: ") + ::gsasl_strerror(result));
  }
  account.iterations = kWebIterations;
  account.salt = EncodeBase64(salt);
  account.stored_key = Base64Secret(keys.stored_key);
  account.server_key = Base64Secret(keys.server_key);
}

FileLockGuard Lock(const std::string& path) {
  try {
    return LockForChange(path);
  } catch (const std::runtime_error& error) {
    throw WebAccountsError(error.what());
  }
}

// One change of the file, under its lock.
class Change {
 public:
  explicit Change(const std::string& path)
      : path_(path),
        lock_(Lock(path)),
        text_(ReadWebAccountsFile(path)),
        entries_(Parser(text_.Get(), path).Parse()) {}

  // Null when there is no such account.
  Entry* Find(const std::string& name) {
    const auto entry = std::find_if(entries_.begin(), entries_.end(), [&](const Entry& candidate) {
      return candidate.account.name == name;
    });
    return entry == entries_.end() ? nullptr : &*entry;
  }

  Entry& Get(const std::string& name) {
    Entry* const entry = Find(name);
    if (entry == nullptr) {
      throw WebAccountsError(fmt::format("{}: there is no account {}", path_, name));
    }
    return *entry;
  }

  void Append(const WebAccount& account) {
    const bool ends_in_line = text_.Get().empty() || text_.Get().back() == '\n';
    Write(text_.Get(), ends_in_line ? "" : "\n", FormatLine(account).Get());
  }

  void Rewrite(const Entry& entry) { Splice(entry, FormatLine(entry.account).Get()); }
  void Erase(const Entry& entry) { Splice(entry, ""); }

 private:
  void Splice(const Entry& entry, std::string_view line) {
    const std::string_view text = text_.Get();
    Write(text.substr(0, entry.begin), line, text.substr(entry.end));
  }

  void Write(std::string_view before, std::string_view middle, std::string_view after) {
    std::string joined;
    joined.reserve(before.size() + middle.size() + after.size());
    joined.append(before).append(middle).append(after);
    const Secret next = Secret::Take(std::move(joined));
    if (next.Get().size() > kLargestFile) {
      throw WebAccountsError(path_ + ": would be too large");
    }
    try {
      ReplaceFile(path_, next.Get(), 0600);
    } catch (const FileError& error) {
      throw WebAccountsError(error.what());
    }
  }

  const std::string& path_;
  FileLockGuard lock_;
  Secret text_;
  std::vector<Entry> entries_;
};

}  // namespace

const char* WebRoleName(WebRole role) { return role == WebRole::kAdmin ? "admin" : "monitor"; }

std::optional<WebRole> ParseWebRole(std::string_view name) {
  for (const WebRole role : {WebRole::kMonitor, WebRole::kAdmin}) {
    if (name == WebRoleName(role)) {
      return role;
    }
  }
  return std::nullopt;
}

bool WebAccount::operator==(const WebAccount& other) const {
  return name == other.name && role == other.role && iterations == other.iterations &&
         salt == other.salt && stored_key.Get() == other.stored_key.Get() &&
         server_key.Get() == other.server_key.Get();
}

Secret ReadWebAccountsFile(const std::string& path) {
  try {
    auto file = ReadRootFile(path, kLargestFile, Others::kMayDoNothing);
    return file ? Secret::Take(std::move(file->text)) : Secret();
  } catch (const FileError& error) {
    throw WebAccountsError(error.what());
  }
}

std::vector<WebAccount> ParseWebAccounts(std::string_view text, const std::string& path) {
  std::vector<WebAccount> accounts;
  for (Entry& entry : Parser(text, path).Parse()) {
    accounts.push_back(std::move(entry.account));
  }
  return accounts;
}

void AddWebAccount(const std::string& path, const std::string& name, WebRole role,
                   const Secret& password) {
  if (!IsName(name)) {
    throw WebAccountsError(fmt::format(
        "{}: an account's name is 1 to {} letters, digits, '.', '_' and '-', and begins with a "
        "letter or digit",
        name, kLongestName));
  }
  WebAccount account;
  account.name = name;
  account.role = role;
  SetPassword(account, password);

  Change change(path);
  if (change.Find(name) != nullptr) {
    throw WebAccountsError(fmt::format("{}: there is an account {} already", path, name));
  }
  change.Append(account);
}

void RemoveWebAccount(const std::string& path, const std::string& name) {
  Change change(path);
  change.Erase(change.Get(name));
}

void ChangeWebPassword(const std::string& path, const std::string& name, const Secret& password) {
  Change change(path);
  Entry& entry = change.Get(name);
  SetPassword(entry.account, password);
  change.Rewrite(entry);
}

void ChangeWebRole(const std::string& path, const std::string& name, WebRole role) {
  Change change(path);
  Entry& entry = change.Get(name);
  entry.account.role = role;
  change.Rewrite(entry);
}

}  // namespace quillon::platform
