#include "doctor/command_output.h"

#include <sstream>

#include <velamailserver/velasdk/popen.h>

namespace {

constexpr char kPath[] = "PATH=/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin; ";

// The status is the last line, and a line of its own whatever the command's last one ends with.
CommandOutput RunInShell(const std::string& script, const std::vector<std::string>& command) {
  std::vector<std::string> arguments = {"-c", kPath + script + "; printf '\\n%d' $?", "sh"};
  arguments.insert(arguments.end(), command.begin(), command.end());
  velamailserver::velasdk::Popen shell("/bin/sh", arguments);
  CommandOutput output{"", 0};
  std::string line;
  std::string next;
  while (shell.GetLine(next)) {
    output.text += line;
    line = next;
  }
  output.status = line.empty() ? 127 : std::stoi(line);
  while (output.text.ends_with('\n')) {
    output.text.pop_back();
  }
  return output;
}

}  // namespace

CommandOutput RunCommand(const std::vector<std::string>& command) {
  return RunInShell("\"$@\" 2>/dev/null", command);
}

std::string ComplaintOf(const std::vector<std::string>& command) {
  const std::string text = RunInShell("\"$@\" 2>&1 >/dev/null", command).text;
  std::istringstream lines(text);
  for (std::string line; std::getline(lines, line);) {
    if (line.find("Error") != std::string::npos || line.find("Fatal") != std::string::npos) {
      return line;
    }
  }
  return text.substr(0, text.find('\n'));
}
