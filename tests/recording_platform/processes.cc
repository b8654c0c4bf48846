#include <fmt/format.h>
#include <fmt/ranges.h>

#include <vela/process.h>
#include <velamailserver/velasdk/popen.h>
#include <velamailserver/velasdk/run_as_root.h>

#include "recording_platform/world.h"

using recording::TheWorld;

int VLIBCProcForkChildNoWait() {
  TheWorld().Call("VLIBCProcForkChildNoWait()");
  return TheWorld().fork();
}

namespace velamailserver::velasdk {

Popen::Popen(const std::string& command, const std::vector<std::string>& arguments)
    : fd_(TheWorld().can_start_commands ? 0 : -1) {
  TheWorld().Call(fmt::format("Popen({}, {})", command, arguments));
}

Popen::~Popen() { TheWorld().Note("~Popen()"); }

bool Popen::GetLine(std::string& line) {
  TheWorld().Call("GetLine()");
  line.clear();
  if (position_ == TheWorld().command_output.size()) {
    return false;
  }
  line = TheWorld().command_output[position_++];
  return true;
}

// What is done as root stands between braces. Becoming what the process was before may fail, but
// for an exception of `work`, which is not to be replaced by another.
void RunAsRoot(const std::string& label, const std::function<void()>& work) {
  TheWorld().Call(fmt::format("RunAsRoot({}) {{", label));
  try {
    work();
  } catch (...) {
    TheWorld().Note("}");
    throw;
  }
  TheWorld().Call("}");
}

}  // namespace velamailserver::velasdk
