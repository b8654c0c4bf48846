#include "warning_command.h"

#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <map>
#include <memory>
#include <stdexcept>
#include <string>
#include <string_view>

#include <fmt/chrono.h>
#include <fmt/format.h>

#include <quillon/platform/configuration.h>
#include <quillon/platform/host_name.h>
#include <velamailserver/maillog.h>

#include "input.h"
#include "options.h"
#include "output.h"
#include "size.h"

namespace {

constexpr char kSourceFile[] = "apps/quillonctl/warning";
constexpr int kWarnedLine = 41;

struct WarningOptions {
  std::string name;
  unsigned long long level = 0;
  unsigned long long limit = 0;
};

constexpr std::string_view kMessage = R"(From: Mail server <postmaster@{host}>
Subject: Your mailbox is filling up
Content-Type: text/plain; charset=utf-8
Content-Transfer-Encoding: 8bit

There are more than {level} of mail in the mailbox of {name} now.{consequence}

Please remove what you do not need any more, in "Sent" and "Trash", too.
)";

std::string OurMessage(const WarningOptions& options, const std::string& host) {
  const std::string consequence =
      options.limit == 0
          ? ""
          : fmt::format("\nNew mail is refused when there are {}.", FormatSize(options.limit));
  return fmt::format(kMessage, fmt::arg("host", host), fmt::arg("name", options.name),
                     fmt::arg("level", FormatSize(options.level)),
                     fmt::arg("consequence", consequence));
}

// What is filled in is not looked at again: a name may hold anything.
std::string Fill(std::string_view text, const std::map<std::string_view, std::string>& values) {
  std::string filled;
  while (!text.empty()) {
    const auto value = std::find_if(values.begin(), values.end(), [&](const auto& entry) {
      return text.starts_with(entry.first);
    });
    filled += value != values.end() ? value->second : std::string(1, text.front());
    text.remove_prefix(value != values.end() ? value->first.size() : 1);
  }
  return filled;
}

std::string OwnMessage(const WarningOptions& options, const std::string& path) {
  return Fill(ReadWarningMessage(path),
              {{"{name}", options.name},
               {"{level}", FormatSize(options.level)},
               {"{limit}", options.limit == 0 ? "unlimited" : FormatSize(options.limit)}});
}

// One that the server makes, and which no other program is to answer.
std::string Headers(const std::string& host) {
  const auto now = std::chrono::system_clock::now();
  return fmt::format(
      "Date: {:%a, %d %b %Y %H:%M:%S} +0000\n"
      "Message-ID: <quota-warning.{}.{}@{}>\n"
      "MIME-Version: 1.0\n"
      "Auto-Submitted: auto-generated\n",
      fmt::gmtime(std::chrono::system_clock::to_time_t(now)), now.time_since_epoch().count(),
      ::getpid(), host);
}

int Warn(const WarningOptions& options) {
  maillog(LOG_WARNING, "%s:%d the mail of %s has grown beyond the warning level of %llu bytes",
          kSourceFile, kWarnedLine, options.name.c_str(), options.level);
  const std::string own = quillon::platform::CurrentConfiguration()->quota.warning_message;
  const std::string host = quillon::platform::HostName();
  WriteOutput(Headers(host) + (own.empty() ? OurMessage(options, host) : OwnMessage(options, own)));
  return kDone;
}

}  // namespace

std::string ReadWarningMessage(const std::string& path) {
  const std::string text = ReadInput(path);
  if (text.find("\n\n") == std::string::npos && text.find("\r\n\r\n") == std::string::npos) {
    throw std::runtime_error("quota.warning_message: no empty line between headers and text in " +
                             path);
  }
  return text;
}

void AddWarningCommand(CLI::App& group, Command& command) {
  const auto options = std::make_shared<WarningOptions>();
  CLI::App* warning = group.add_subcommand(
      kWarning,
      "Write the message for a user who has more mail than the warning level, and a line in the "
      "mail log; for the program that leaves it in the mailbox");
  AddParsed(*warning, "--level", options->level, ParseSize, "the warning level")
      ->type_name("SIZE")
      ->required();
  AddParsed(*warning, "--limit", options->limit, ParseSize, "the limit; 0, the default, for none")
      ->type_name("SIZE");
  warning->add_option("NAME", options->name, "the user")->required();
  warning->footer("Example: quillonctl quota warning --level 9G --limit 10G ann");
  warning->callback([options, &command] { command = [options] { return Warn(*options); }; });
}
