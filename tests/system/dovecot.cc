#include "system/dovecot.h"

#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <system_error>
#include <thread>

#include <fmt/format.h>

#include <quillon/platform/file_descriptor.h>

#include "support/loopback.h"

namespace quillon::test {

namespace {

namespace fs = std::filesystem;

constexpr gid_t kMailGroup = 8;  // "mail", which every Debian has

// A conversation in lines.
class Conversation {
 public:
  explicit Conversation(const std::string& path) : socket_(::socket(AF_UNIX, SOCK_STREAM, 0)) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof(address.sun_path) - 1);
    Connect(reinterpret_cast<const sockaddr*>(&address), sizeof address);
  }
  explicit Conversation(int port) : socket_(::socket(AF_INET, SOCK_STREAM, 0)) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<std::uint16_t>(port));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    Connect(reinterpret_cast<const sockaddr*>(&address), sizeof address);
  }

  void Say(std::string_view text) {
    if (::send(socket_.Get(), text.data(), text.size(), MSG_NOSIGNAL) !=
        static_cast<ssize_t>(text.size())) {
      throw std::runtime_error("the server does not listen");
    }
  }

  // The next line, without its end.
  std::string Line() {
    std::string line;
    char c = 0;
    while (::read(socket_.Get(), &c, 1) == 1) {
      if (c == '\n') {
        line.pop_back();
        return line;
      }
      line += c;
    }
    throw std::runtime_error("the server says no more than: " + line);
  }

  // The last line of a reply whose other lines have a hyphen behind their number.
  std::string Reply() {
    std::string line = Line();
    while (line.size() > 3 && line[3] == '-') {
      line = Line();
    }
    return line;
  }

  // The first line that begins so.
  std::string LineOf(std::string_view begin) {
    std::string line = Line();
    while (!line.starts_with(begin)) {
      line = Line();
    }
    return line;
  }

 private:
  void Connect(const sockaddr* address, socklen_t size) const {
    if (::connect(socket_.Get(), address, size) != 0) {
      throw std::runtime_error("the server does not answer");
    }
  }

  platform::FileDescriptor socket_;
};

#ifdef __SANITIZE_ADDRESS__
constexpr char kMemoryLimit[] = "default_vsz_limit = 0";  // the sanitizer needs more than is there
#else
constexpr char kMemoryLimit[] = "";
#endif

std::string Message(std::size_t bytes) {
  std::string message = "Subject: test\r\n\r\n";
  while (message.size() < bytes) {
    message += std::string(62, 'x') + "\r\n";
  }
  return message;
}

Conversation LogIn(int port, const std::string& user) {
  Conversation imap(port);
  imap.Say(fmt::format("a LOGIN {{{}+}}\r\n{} pass\r\nb SELECT INBOX\r\n", user.size(), user));
  const std::string selected = imap.LineOf("b ");
  if (!selected.starts_with("b OK")) {
    throw std::runtime_error(selected);
  }
  return imap;
}

}  // namespace

void OpenToDovecot(const TemporaryFolder& folder, const RedisServer& usage_store) {
  const std::string spool = folder / "spool/local";
  fs::create_directories(spool);
  if (::chown(spool.c_str(), 0, kMailGroup) != 0 || ::chmod(spool.c_str(), 01771) != 0) {
    throw std::system_error(errno, std::generic_category(), spool);
  }
  const fs::path socket = usage_store.socket();
  for (const fs::path& path : {folder.path(), socket.parent_path(), socket}) {
    fs::permissions(path, fs::perms(0777));
  }
}

Dovecot::Dovecot(const std::string& settings)
    : configuration_(settings + "/dovecot.conf"), imap_port_(FreePort()) {
  fs::permissions(folder_.path(), fs::perms(0755));
  std::ofstream(configuration_) << fmt::format(R"(base_dir = {0}/run
log_path = {0}/log
{3}
protocols = lmtp imap
ssl = no
disable_plaintext_auth = no
passdb {{
  driver = static
  args = password=pass
}}
service imap-login {{
  inet_listener imap {{
    address = 127.0.0.1
    port = {1}
  }}
  inet_listener imaps {{
    port = 0
  }}
}}
!include {2}/conf.d/99-quillon.conf
)",
                                               folder_.path().string(), imap_port_, settings,
                                               kMemoryLimit);
  program_ = std::make_unique<BackgroundProgram>(
      std::vector<std::string>{"/usr/sbin/dovecot", "-F", "-c", configuration_},
      folder_ / "output");
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
  while (!Listens()) {
    if (!program_->IsRunning() || std::chrono::steady_clock::now() > deadline) {
      throw std::runtime_error("dovecot: " + folder_.Read("output"));
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
}

Dovecot::~Dovecot() { program_->Stop(); }

bool Dovecot::Listens() const {
  try {
    const Conversation lmtp(Socket());
    const Conversation imap(imap_port_);
    return true;
  } catch (const std::runtime_error&) {
    return false;
  }
}

std::string Dovecot::Deliver(const std::string& user, std::size_t bytes) const {
  Conversation lmtp(Socket());
  lmtp.Reply();
  lmtp.Say("LHLO test\r\n");
  lmtp.Reply();
  lmtp.Say("MAIL FROM:<test@example.org>\r\n");
  lmtp.Reply();
  lmtp.Say(fmt::format("RCPT TO:<{}>\r\n", user));
  const std::string recipient = lmtp.Reply();
  if (!recipient.starts_with("250")) {
    return recipient;
  }
  lmtp.Say("DATA\r\n");
  lmtp.Reply();
  lmtp.Say(Message(bytes) + ".\r\n");
  return lmtp.Reply();
}

void Dovecot::RemoveFirstMessage(const std::string& user) const {
  Conversation imap = LogIn(imap_port_, user);
  imap.Say("c STORE 1 +FLAGS.SILENT (\\Deleted)\r\nd EXPUNGE\r\ne LOGOUT\r\n");
  imap.LineOf("e OK");
}

std::string Dovecot::Append(const std::string& user, std::size_t bytes) const {
  Conversation imap = LogIn(imap_port_, user);
  const std::string message = Message(bytes);
  imap.Say(fmt::format("c APPEND INBOX {{{}+}}\r\n{}\r\n", message.size(), message));
  const std::string answer = imap.LineOf("c ");
  imap.Say("d LOGOUT\r\n");
  imap.LineOf("d OK");
  return answer;
}

std::string Dovecot::Log() const { return folder_.Read("log"); }

}  // namespace quillon::test
