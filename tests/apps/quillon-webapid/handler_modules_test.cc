#include "handler_modules.h"

#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <quillon/platform/configuration.h>
#include <vela/api_runner.h>

#include "support/temporary_folder.h"

namespace quillon::webapid {
namespace {

using testing::AllOf;
using testing::HasSubstr;
using testing::IsEmpty;
namespace fs = std::filesystem;

constexpr char kNotLoaded[] = "not loaded";

// Given a folder of modules, when it is loaded, then these APIs can be called and this is logged.
// What was loaded stays, so every test puts something else in the API's place first.
class HandlerModules : public testing::Test {
 protected:
  HandlerModules() {
    platform::Configuration configuration;
    configuration.log = {"file", folder_ / "mail.log"};
    platform::UseConfiguration(configuration);
    folder_.Write("mail.log", "");
    fs::create_directory(modules_);
    ::chmod(modules_.c_str(), 0755);
    VELA::APIRunner::Register("Test.Module", 1, "get",
                              [](const Json::Value&) { return Json::Value(kNotLoaded); });
  }
  ~HandlerModules() override { platform::UseConfiguration(platform::Configuration()); }

  std::string Put(const std::string& name, const char* module = GOOD_HANDLERS) const {
    const std::string path = modules_ + "/" + name;
    fs::copy_file(module, path);
    ::chmod(path.c_str(), 0644);
    return path;
  }

  static Json::Value Call() {
    Json::Value response;
    VELA::APIRunner::Exec(response, "Test.Module", 1, "get", Json::Value(), "admin");
    return response["data"];
  }

  std::string Log() const { return folder_.Read("mail.log"); }

  void ExpectNothingLoaded(const std::string& reason) const {
    LoadHandlerModules(modules_);
    EXPECT_EQ(Call(), kNotLoaded);
    EXPECT_THAT(Log(), HasSubstr(reason));
  }

  test::TemporaryFolder folder_;
  const std::string modules_ = folder_ / "handlers";
};

TEST_F(HandlerModules, RegisterTheirApis) {
  Put("a.so");
  LoadHandlerModules(modules_);
  EXPECT_EQ(Call(), "from the module");
  EXPECT_THAT(Log(), IsEmpty());
}

TEST_F(HandlerModules, AreFoundThroughALink) {
  Put("a.so");
  fs::create_directory_symlink(modules_, folder_ / "link");
  LoadHandlerModules(folder_ / "link");
  EXPECT_EQ(Call(), "from the module");
}

TEST_F(HandlerModules, AreNotLookedForWithoutAFolder) {
  LoadHandlerModules("");
  EXPECT_THAT(Log(), IsEmpty());
}

TEST_F(HandlerModules, OfOtherNamesAreNoModules) {
  Put("a.so.old");
  LoadHandlerModules(modules_);
  EXPECT_EQ(Call(), kNotLoaded);
  EXPECT_THAT(Log(), IsEmpty());
}

TEST_F(HandlerModules, ThatAreBadDoNotKeepTheOthersOut) {
  folder_.Write("handlers/a.so", "no object");
  Put("b.so", EMPTY_HANDLERS);
  Put("c.so", THROWING_HANDLERS);
  Put("d.so");
  LoadHandlerModules(modules_);
  EXPECT_EQ(Call(), "from the module");
  EXPECT_THAT(Log(), AllOf(HasSubstr("modules:37 module of handlers not loaded: "),
                           HasSubstr("a.so: file too short"),
                           HasSubstr("undefined symbol: QuillonRegisterHandlers"),
                           HasSubstr("out of order")));
}

TEST_F(HandlerModules, InAMissingFolderAreLogged) {
  LoadHandlerModules(folder_ / "missing");
  EXPECT_THAT(Log(), AllOf(HasSubstr("modules:29 no module of handlers loaded: "),
                           HasSubstr("No such file or directory")));
}

TEST_F(HandlerModules, InAFolderOfSomebodyElsesAreRefused) {
  Put("a.so");
  ASSERT_EQ(::chown(modules_.c_str(), 65534, 0), 0);
  ExpectNothingLoaded(modules_ + ": does not belong to root");
}

TEST_F(HandlerModules, InAFolderThatOthersMayWriteToAreRefused) {
  Put("a.so");
  for (const mode_t mode : {0775U, 0757U, 01777U}) {
    ::chmod(modules_.c_str(), mode);
    ExpectNothingLoaded(modules_ + ": others than root may write to it");
  }
}

TEST_F(HandlerModules, BelowAFolderThatOthersMayWriteToAreRefused) {
  Put("a.so");
  ::chmod(folder_.path().c_str(), 0777);
  ExpectNothingLoaded(folder_.path().string() + ": others than root may write to it");
}

TEST_F(HandlerModules, BelowAStickyFolderAreLoaded) {
  Put("a.so");
  ::chmod(folder_.path().c_str(), 01777);
  LoadHandlerModules(modules_);
  EXPECT_EQ(Call(), "from the module");
}

TEST_F(HandlerModules, OfSomebodyElsesAreRefused) {
  const std::string module = Put("a.so");
  ASSERT_EQ(::chown(module.c_str(), 65534, 0), 0);
  ExpectNothingLoaded(module + ": does not belong to root");
}

TEST_F(HandlerModules, ThatOthersMayWriteToAreRefused) {
  const std::string module = Put("a.so");
  ::chmod(module.c_str(), 0664);
  ExpectNothingLoaded(module + ": others than root may write to it");
}

TEST_F(HandlerModules, ThatAreLinksAreRefused) {
  fs::create_symlink(GOOD_HANDLERS, modules_ + "/a.so");
  ExpectNothingLoaded("a.so: is not a regular file");
}

}  // namespace
}  // namespace quillon::webapid
