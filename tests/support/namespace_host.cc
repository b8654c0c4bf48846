#include "support/namespace_host.h"

#include <chrono>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <thread>

#include <fmt/format.h>
#include <fmt/ranges.h>

#include "support/child_processes.h"

namespace quillon::test {

namespace {

constexpr char kFirstProgram[] = "sleep";
constexpr char kFirstAddress[] = "10.99.0.1";
constexpr char kSecondAddress[] = "10.99.0.2";

void MustRun(const std::vector<std::string>& command) {
  const Outcome outcome = Run(command);
  if (outcome.exit_code != 0) {
    throw std::runtime_error(fmt::format("{}: {}", fmt::join(command, " "), outcome.error));
  }
}

// Killing the first process of a namespace of processes kills all that are in it.
std::vector<std::string> InNamespaces(std::vector<std::string> command) {
  const std::vector<std::string> prefix = {
      "unshare", "--net",         "--mount", "--uts",        "--pid",
      "--fork",  "--propagation", "private", "--mount-proc", "--kill-child"};
  command.insert(command.begin(), prefix.begin(), prefix.end());
  return command;
}

// It runs its program when the namespaces are complete.
pid_t FirstProcess(BackgroundProgram& namespaces, const std::string& output) {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
  while (namespaces.IsRunning() && std::chrono::steady_clock::now() < deadline) {
    const auto found = ChildrenOf(namespaces.pid(), kFirstProgram);
    if (!found.empty()) {
      return found.front();
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
  }
  throw std::runtime_error("no host can be made: see " + output);
}

}  // namespace

std::string NamespaceHost::Lacking() {
  Outcome tried = test::Run(InNamespaces({"mount", "-t", "tmpfs", "none", "/run"}));
  if (tried.exit_code != 0) {
    return "namespaces with mounts: " + tried.error;
  }
  tried = test::Run(
      {"unshare", "--net", "ip", "link", "add", "one", "type", "veth", "peer", "name", "other"});
  return tried.exit_code == 0 ? "" : "veth devices: " + tried.error;
}

NamespaceHost::NamespaceHost(const std::string& name)
    : name_(name),
      namespaces_(InNamespaces({kFirstProgram, "infinity"}), folder_ / "output"),
      first_process_(FirstProcess(namespaces_, folder_ / "output")) {
  Do({"mount", "-t", "tmpfs", "none", "/run"});
  Do({"cp", "--archive", "/etc", "/run/etc"});
  Do({"mount", "--bind", "/run/etc", "/etc"});
  Do({"mount", "-t", "tmpfs", "-o", "mode=755", "none", "/var/lib"});
  Do({"hostname", name});
  Do({"ip", "link", "set", "lo", "up"});
}

NamespaceHost::~NamespaceHost() {
  if (namespaces_.IsRunning()) {
    ::kill(first_process_, SIGKILL);
  }
}

void NamespaceHost::Join(const NamespaceHost& first, const NamespaceHost& second) {
  MustRun({"ip", "link", "add", "eth0", "netns", std::to_string(first.first_process_), "type",
           "veth", "peer", "name", "eth0", "netns", std::to_string(second.first_process_)});
  const std::string names = fmt::format("127.0.0.1 localhost\n{} {}\n{} {}\n", kFirstAddress,
                                        first.name_, kSecondAddress, second.name_);
  const auto plug_in = [&names](const NamespaceHost& host, const char* address) {
    host.Do({"ip", "address", "add", fmt::format("{}/24", address), "dev", "eth0"});
    host.Do({"ip", "link", "set", "eth0", "up"});
    host.Write("/etc/hosts", names);
  };
  plug_in(first, kFirstAddress);
  plug_in(second, kSecondAddress);
}

std::string NamespaceHost::Outside(const std::string& path) const {
  return fmt::format("/proc/{}/root{}", first_process_, path);
}

std::string NamespaceHost::Read(const std::string& path) const {
  std::ifstream file(Outside(path));
  return {std::istreambuf_iterator<char>(file), {}};
}

void NamespaceHost::Write(const std::string& path, const std::string& text) const {
  const std::filesystem::path outside = Outside(path);
  std::filesystem::create_directories(outside.parent_path());
  if (!(std::ofstream(outside) << text << std::flush)) {
    throw std::runtime_error("cannot write " + outside.string());
  }
}

std::vector<std::string> NamespaceHost::CommandLine(const std::vector<std::string>& command) const {
  std::vector<std::string> line = {
      "nsenter", "--target=" + std::to_string(first_process_), "--net", "--mount", "--uts", "--pid",
      "--"};
  line.insert(line.end(), command.begin(), command.end());
  return line;
}

Outcome NamespaceHost::Run(const std::vector<std::string>& command,
                           const std::string& input) const {
  return test::Run(CommandLine(command), input);
}

void NamespaceHost::Do(const std::vector<std::string>& command) const {
  MustRun(CommandLine(command));
}

}  // namespace quillon::test
