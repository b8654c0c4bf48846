#include "output.h"

#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <sstream>
#include <system_error>
#include <utility>

#include <json/writer.h>

#include <quillon/platform/printable.h>

void WriteOutput(std::string_view text) {
  if (std::fwrite(text.data(), 1, text.size(), stdout) != text.size() || std::fflush(stdout) != 0) {
    throw std::system_error(errno, std::generic_category(), "cannot write to standard output");
  }
}

void WriteJson(const Json::Value& document) {
  Json::StreamWriterBuilder writer;
  writer["indentation"] = "  ";
  std::ostringstream text;
  text.exceptions(std::ios::badbit);  // else it just ends where memory does
  std::unique_ptr<Json::StreamWriter>(writer.newStreamWriter())->write(document, &text);
  WriteOutput(std::move(text).str() + "\n");
}

void WriteError(const std::string& message) {
  const std::string line = "quillonctl: " + quillon::platform::Printable(message) + "\n";
  static_cast<void>(std::fputs(line.c_str(), stderr));
}

bool OutputHasColour() {
  const char* const no_colour = std::getenv("NO_COLOR");
  return ::isatty(STDOUT_FILENO) == 1 && (no_colour == nullptr || *no_colour == '\0');
}
