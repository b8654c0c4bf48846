#include "doctor/effective_settings.h"

#include <sstream>
#include <stdexcept>

#include "doctor/command_output.h"

std::string EffectiveSettings::Get(const std::string& key, const std::string& protocol) {
  auto values = by_protocol_.find(protocol);
  if (values == by_protocol_.end()) {
    values = by_protocol_.emplace(protocol, Read(protocol)).first;
  }
  const auto value = values->second.find(key);
  return value != values->second.end() ? value->second : "";
}

EffectiveSettings::Values EffectiveSettings::Read(const std::string& protocol) const {
  std::vector<std::string> command = {"doveconf", "-S", "-c", file_};
  if (!protocol.empty()) {
    command.insert(command.end(), {"-f", "protocol=" + protocol});
  }
  const CommandOutput output = RunCommand(command);
  if (!output.IsSuccess()) {
    throw std::runtime_error(output.status == 127 ? "there is no doveconf" : ComplaintOf(command));
  }
  Values values;
  std::istringstream lines(output.text);
  for (std::string line; std::getline(lines, line);) {
    if (const auto equals = line.find('='); equals != std::string::npos) {
      values[line.substr(0, equals)] = line.substr(equals + 1);
    }
  }
  return values;
}
