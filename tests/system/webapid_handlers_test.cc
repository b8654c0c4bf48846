// A server with handlers of somebody's own.
#include <sys/stat.h>

#include <filesystem>

#include <fmt/format.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "system/web_server.h"

namespace quillon::test {
namespace {

constexpr char kModuleCall[] = R"({"api":"Test.Module","version":1,"method":"get"})";

// There before the server starts.
class ModuleFolder {
 public:
  ModuleFolder() {
    const std::string path = folder_ / "test.so";
    std::filesystem::copy_file(HANDLERS, path);
    ::chmod(folder_.path().c_str(), 0755);
    ::chmod(path.c_str(), 0644);
  }
  std::string path() const { return folder_.path(); }

 private:
  TemporaryFolder folder_;
};

class HandlersOfOnesOwn : public testing::Test {
 protected:
  const ModuleFolder modules_;
  const WebServer server_{fmt::format("handlers_folder = \"{}\"", modules_.path())};
};

TEST_F(HandlersOfOnesOwn, AreCalledByAdministratorsAndNotByMonitors) {
  const WebAnswer answer = server_.Call(server_.Token("boss"), kModuleCall);
  EXPECT_EQ(answer.envelope["data"], "from the module") << answer.text << server_.Log();
  ExpectRefusal(server_.Call(server_.Token("watcher"), kModuleCall), 403);
}

// The module registers this one, too.
TEST_F(HandlersOfOnesOwn, DoNotReplaceThoseOfThePackage) {
  const WebAnswer answer = server_.Call(server_.Token("watcher"), kNames);
  EXPECT_EQ(answer.envelope["data"]["names"][0], "alice") << answer.text;
}

}  // namespace
}  // namespace quillon::test
