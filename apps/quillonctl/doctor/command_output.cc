#include "doctor/command_output.h"

#include <velamailserver/velasdk/popen.h>

namespace {

constexpr char kScript[] =
    "PATH=/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin; "
    "\"$@\" 2>&1; printf '\\n%d' $?";

}  // namespace

CommandOutput RunCommand(const std::vector<std::string>& command) {
  // The status is the last line, and a line of its own whatever the command's last one ends with.
  std::vector<std::string> arguments = {"-c", kScript, "sh"};
  arguments.insert(arguments.end(), command.begin(), command.end());
  velamailserver::velasdk::Popen shell("/bin/sh", arguments);
  CommandOutput output{"", false};
  std::string line;
  std::string next;
  while (shell.GetLine(next)) {
    output.text += line;
    line = next;
  }
  output.is_success = line == "0";
  while (output.text.ends_with('\n')) {
    output.text.pop_back();
  }
  return output;
}
