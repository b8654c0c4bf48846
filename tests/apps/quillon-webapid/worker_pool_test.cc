#include "worker_pool.h"

#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <map>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <quillon/platform/configuration.h>

namespace quillon::webapid {
namespace {

using platform::FileDescriptor;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Pair;
using namespace std::chrono_literals;
using Time = WorkerPool::Time;

constexpr char kDone[] = R"({"success":true})";

class WorkerPoolTest : public testing::Test {
 protected:
  WorkerPoolTest() {
    platform::Configuration configuration;
    configuration.log.target = "stderr";
    platform::UseConfiguration(std::move(configuration));
  }

  // Gives the pool a worker; this is the worker's end.
  FileDescriptor AddWorker(std::uint32_t worker = 0, std::uint32_t generation = 1) {
    std::array<int, 2> ends{};
    EXPECT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends.data()), 0);
    pool_.Use(worker, generation, FileDescriptor(ends[0]));
    return FileDescriptor(ends[1]);
  }

  // Its answer goes to `answers_` by `name`.
  bool Submit(const std::string& name, Time deadline = Time::max()) {
    return pool_.Submit(kAdmin, {name}, deadline, [this, name](int status, std::string text) {
      answers_.emplace_back(name, status);
      texts_[name] = std::move(text);
    });
  }

  // What the worker gets now.
  static std::optional<Frame> Read(const FileDescriptor& worker) {
    FrameReader reader;
    std::array<char, 65536> piece{};
    ssize_t got = 0;
    while ((got = ::recv(worker.Get(), piece.data(), piece.size(), MSG_DONTWAIT)) > 0) {
      reader.Append({piece.data(), static_cast<std::size_t>(got)});
    }
    return reader.Next();
  }

  void Write(const FileDescriptor& worker, const std::string& bytes) {
    ASSERT_EQ(::send(worker.Get(), bytes.data(), bytes.size(), MSG_NOSIGNAL),
              static_cast<ssize_t>(bytes.size()));
    poller_.Wait(0);
  }

  static std::string AnswerTo(const Frame& request, std::uint32_t code = 200) {
    return Encode({request.index, request.generation, code, {kDone}});
  }

  std::vector<std::pair<std::uint32_t, std::uint32_t>> replaced_;
  std::vector<std::pair<std::string, int>> answers_;
  std::map<std::string, std::string> texts_;
  Poller poller_;
  WorkerPool pool_{poller_, [this](std::uint32_t worker, std::uint32_t generation) {
                     replaced_.emplace_back(worker, generation);
                   }};
};

TEST_F(WorkerPoolTest, GivesAWorkerOneCallAtATime) {
  const FileDescriptor worker = AddWorker();
  ASSERT_TRUE(Submit("first"));
  ASSERT_TRUE(Submit("second"));
  const auto first = Read(worker);
  ASSERT_TRUE(first);
  EXPECT_THAT(first->parts, ElementsAre("first"));
  EXPECT_EQ(first->code, kAdmin);
  EXPECT_FALSE(Read(worker));

  Write(worker, AnswerTo(*first, 403));
  EXPECT_THAT(answers_, ElementsAre(Pair("first", 403)));
  EXPECT_EQ(texts_["first"], kDone);
  const auto second = Read(worker);
  ASSERT_TRUE(second);
  EXPECT_THAT(second->parts, ElementsAre("second"));
  Write(worker, AnswerTo(*second));
  EXPECT_THAT(answers_, ElementsAre(Pair("first", 403), Pair("second", 200)));
  EXPECT_THAT(replaced_, IsEmpty());
}

TEST_F(WorkerPoolTest, UsesAllWorkers) {
  const FileDescriptor one = AddWorker(0);
  const FileDescriptor other = AddWorker(1);
  Submit("first");
  Submit("second");
  const auto first = Read(one);
  const auto second = Read(other);
  ASSERT_TRUE(first && second);
  Write(other, AnswerTo(*second));
  Write(one, AnswerTo(*first));
  EXPECT_THAT(answers_, ElementsAre(Pair("second", 200), Pair("first", 200)));
}

TEST_F(WorkerPoolTest, KeepsCallsUntilThereIsAWorker) {
  Submit("early");
  const FileDescriptor worker = AddWorker();
  const auto request = Read(worker);
  ASSERT_TRUE(request);
  Write(worker, AnswerTo(*request));
  EXPECT_THAT(answers_, ElementsAre(Pair("early", 200)));
}

TEST_F(WorkerPoolTest, TakesAnAnswerInPieces) {
  const FileDescriptor worker = AddWorker();
  Submit("call");
  const std::string answer = AnswerTo(*Read(worker));
  for (const char byte : answer) {
    EXPECT_THAT(answers_, IsEmpty());
    Write(worker, std::string(1, byte));
  }
  EXPECT_THAT(answers_, ElementsAre(Pair("call", 200)));
}

TEST_F(WorkerPoolTest, SendsARequestThatTheSocketDoesNotHold) {
  const FileDescriptor worker = AddWorker();
  const std::string large(8 << 20, 'x');
  Submit(large);
  FrameReader reader;
  std::array<char, 65536> piece{};
  std::optional<Frame> request;
  for (int i = 0; i < 10000 && !request; ++i) {
    const ssize_t got = ::recv(worker.Get(), piece.data(), piece.size(), MSG_DONTWAIT);
    if (got > 0) {
      reader.Append({piece.data(), static_cast<std::size_t>(got)});
      request = reader.Next();
    }
    poller_.Wait(0);
  }
  ASSERT_TRUE(request);
  EXPECT_EQ(request->parts.front(), large);
  Write(worker, AnswerTo(*request));
  EXPECT_EQ(answers_.size(), 1U);
}

TEST_F(WorkerPoolTest, ReplacesAWorkerThatAnswersWhatItWasNotAsked) {
  const FileDescriptor worker = AddWorker(0, 7);
  Submit("call");
  Frame request = *Read(worker);
  ++request.generation;
  Write(worker, AnswerTo(request));
  EXPECT_THAT(answers_, ElementsAre(Pair("call", 502)));
  EXPECT_THAT(texts_["call"], HasSubstr("was not asked"));
  EXPECT_THAT(replaced_, ElementsAre(Pair(0U, 7U)));
}

TEST_F(WorkerPoolTest, ReplacesAWorkerThatAnswersUnasked) {
  const FileDescriptor worker = AddWorker();
  Write(worker, AnswerTo({0, 0, 0, {}}));
  EXPECT_THAT(answers_, IsEmpty());
  EXPECT_THAT(replaced_, ElementsAre(Pair(0U, 1U)));
}

// And the next call does not suffer from it.
TEST_F(WorkerPoolTest, ReplacesAWorkerThatAnswersTwice) {
  const FileDescriptor worker = AddWorker();
  Submit("first");
  Submit("second");
  const std::string answer = AnswerTo(*Read(worker));
  Write(worker, answer + answer);
  EXPECT_THAT(answers_, ElementsAre(Pair("first", 200)));
  EXPECT_THAT(replaced_, ElementsAre(Pair(0U, 1U)));
  const FileDescriptor next = AddWorker(0, 2);
  const auto second = Read(next);
  ASSERT_TRUE(second);
  Write(next, AnswerTo(*second));
  EXPECT_THAT(answers_, ElementsAre(Pair("first", 200), Pair("second", 200)));
}

TEST_F(WorkerPoolTest, ReplacesAWorkerThatAnswersWithoutAnEnvelope) {
  const FileDescriptor worker = AddWorker();
  Submit("call");
  const Frame request = *Read(worker);
  Write(worker, Encode({request.index, request.generation, 200, {}}));
  EXPECT_THAT(answers_, ElementsAre(Pair("call", 502)));
  EXPECT_EQ(replaced_.size(), 1U);
}

TEST_F(WorkerPoolTest, ReplacesAWorkerThatSendsNoFrames) {
  const FileDescriptor worker = AddWorker();
  Submit("call");
  Write(worker, std::string(64, '\xff'));
  EXPECT_THAT(answers_, ElementsAre(Pair("call", 502)));
  EXPECT_EQ(replaced_.size(), 1U);
}

TEST_F(WorkerPoolTest, LosesOneCallWhenAWorkerDies) {
  FileDescriptor worker = AddWorker();
  Submit("running");
  Submit("waiting");
  const std::string answer = AnswerTo(*Read(worker));
  Write(worker, answer.substr(0, answer.size() - 1));
  worker = FileDescriptor();
  poller_.Wait(0);
  EXPECT_THAT(answers_, ElementsAre(Pair("running", 502)));
  EXPECT_THAT(replaced_, IsEmpty()) << "who starts it notices that it has ended";

  const FileDescriptor next = AddWorker(0, 2);
  const auto waiting = Read(next);
  ASSERT_TRUE(waiting);
  EXPECT_THAT(waiting->parts, ElementsAre("waiting"));
}

TEST_F(WorkerPoolTest, WantsNothingMoreOfAWorkerThatEnds) {
  const FileDescriptor worker = AddWorker();
  Submit("first");
  Submit("second");
  Write(worker, AnswerTo(*Read(worker), 200 | kLastAnswer));
  EXPECT_THAT(answers_, ElementsAre(Pair("first", 200)));
  EXPECT_FALSE(Read(worker));
  const FileDescriptor next = AddWorker(0, 2);
  EXPECT_TRUE(Read(next));
}

TEST_F(WorkerPoolTest, EndsACallThatTakesTooLong) {
  const FileDescriptor worker = AddWorker(0, 5);
  const Time now = Time() + 100s;
  Submit("late", now);
  Submit("later", now + 2s);
  pool_.CheckDeadlines(now - 1s);
  EXPECT_THAT(answers_, IsEmpty());
  pool_.CheckDeadlines(now);
  EXPECT_THAT(answers_, ElementsAre(Pair("late", 504)));
  EXPECT_THAT(replaced_, ElementsAre(Pair(0U, 5U)));
  pool_.CheckDeadlines(now + 2s);
  EXPECT_THAT(answers_, ElementsAre(Pair("late", 504), Pair("later", 503)));
}

TEST_F(WorkerPoolTest, DropsTheCallOfAWorkerThatIsReplaced) {
  const FileDescriptor worker = AddWorker(0, 1);
  Submit("call");
  const FileDescriptor next = AddWorker(0, 2);
  EXPECT_THAT(answers_, ElementsAre(Pair("call", 502)));
  EXPECT_FALSE(Read(next));
}

TEST_F(WorkerPoolTest, TakesNoMoreCallsThanItHasRoomFor) {
  for (std::size_t i = 0; i < WorkerPool::kMostWaiting; ++i) {
    ASSERT_TRUE(Submit("call"));
  }
  EXPECT_FALSE(Submit("one more"));
  pool_.FailAll();
  EXPECT_EQ(answers_.size(), WorkerPool::kMostWaiting);
  EXPECT_TRUE(std::all_of(answers_.begin(), answers_.end(),
                          [](const auto& answer) { return answer.second == 503; }));
  EXPECT_TRUE(Submit("again"));
}

TEST_F(WorkerPoolTest, TakesNoMoreBytesThanItHasRoomFor) {
  const std::string large(WorkerPool::kMostWaitingBytes / 2, 'x');
  EXPECT_TRUE(Submit(large));
  EXPECT_FALSE(Submit(large));
  pool_.FailAll();
  EXPECT_TRUE(Submit(large));
}

TEST_F(WorkerPoolTest, AnswersAllWhenTheServerStops) {
  const FileDescriptor worker = AddWorker();
  Submit("running");
  Submit("waiting");
  pool_.FailAll();
  EXPECT_THAT(answers_, ElementsAre(Pair("running", 503), Pair("waiting", 503)));
}

}  // namespace
}  // namespace quillon::webapid
