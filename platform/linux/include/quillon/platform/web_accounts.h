#pragma once

#include <cstddef>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include <quillon/platform/secret.h>
#include <velamailserver/visibility.h>

namespace quillon::platform {

/// What an account of the web server may do: read figures and lists, or everything.
enum class WebRole { kMonitor, kAdmin };

/// "monitor" or "admin", as the accounts file and the API runner have it.
const char* WebRoleName(WebRole role);
/// Nothing for any other text.
std::optional<WebRole> ParseWebRole(std::string_view name);

/// An account of the web server. In place of the password it has what checks a login by
/// SCRAM-SHA-256 (RFC 5802, RFC 7677); binary values are in base64.
struct WebAccount {
  std::string name;  ///< 1 to 64 letters, digits, '.', '_' and '-'; the first a letter or digit
  WebRole role = WebRole::kMonitor;  ///< what it may do
  unsigned iterations = 0;           ///< how often the password was hashed
  std::string salt;                  ///< of `kWebSaltBytes` bytes
  Secret stored_key;                 ///< checks what the client proves
  Secret server_key;                 ///< proves to the client that the server knows the account

  /// Whether nothing of it was changed.
  bool operator==(const WebAccount& other) const;
};

/// The only way to log in.
inline constexpr char kWebLoginMechanism[] = "SCRAM-SHA-256";

/// The iterations of a new password. A call of another host logs in each time, and its client pays
/// for this: 7 to 20 ms. RFC 7677 asks for 4096 at least; what more of them would buy is some
/// protection of passwords after this file was stolen from root, and a longer password buys more.
inline constexpr unsigned kWebIterations = 10000;

/// The length of every account's salt. It is the same for all, so that a salt made up for a name
/// without an account looks like the others.
inline constexpr std::size_t kWebSaltBytes = 16;

/// Characters that a password has at least.
inline constexpr std::size_t kShortestWebPassword = 8;

/// The accounts file cannot be used or changed. `what()` is one line, which names the file and, for
/// a line that does not parse, its number.
class VELAMAILSERVER_EXPORT WebAccountsError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

/// The whole accounts file, for `ParseWebAccounts`. It must be a regular file that belongs to root
/// and that nobody else may read or write, in a folder that only root may write to. A missing file
/// is one without accounts. Throws `WebAccountsError`.
Secret ReadWebAccountsFile(const std::string& path);

/// The accounts in the text of a file, in its order; `path` is for messages. It has a line for
/// each,
///   NAME:ROLE:SCRAM-SHA-256:ITERATIONS:SALT:STORED_KEY:SERVER_KEY
/// and may have blank lines and lines that begin with '#'. Throws `WebAccountsError` for any other
/// line, and for a second account of a name.
std::vector<WebAccount> ParseWebAccounts(std::string_view text, const std::string& path);

///@{
/// Needs root, changes the accounts file as a whole or not at all, keeps its comments, and throws
/// `WebAccountsError`: also for a name that cannot be an account's, that there is already or that
/// there is not, and for a password that is too short, is no UTF-8 or holds control characters.
void AddWebAccount(const std::string& path, const std::string& name, WebRole role,
                   const Secret& password);
void RemoveWebAccount(const std::string& path, const std::string& name);
void ChangeWebPassword(const std::string& path, const std::string& name, const Secret& password);
void ChangeWebRole(const std::string& path, const std::string& name, WebRole role);
///@}

}  // namespace quillon::platform
