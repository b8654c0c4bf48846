// What the front gets from its workers. An input is a line for each step, of whose word only the
// first letter counts:
//
//   submit TEXT        a client calls
//   answer 200 TEXT    the worker answers what it was asked last
//   wrong 0 0 200 TEXT the worker answers index, generation, with a status
//   bytes TEXT         the worker writes something else
//   leave              the worker ends
//   new                a worker is started
//   due                the time of all calls is up
#include <sys/socket.h>

#include <array>
#include <charconv>
#include <chrono>
#include <map>
#include <optional>
#include <set>
#include <string>

#include "frame.h"
#include "fuzz/platform.h"
#include "poller.h"
#include "worker_pool.h"

namespace quillon::fuzz {
namespace {

using platform::FileDescriptor;
using webapid::Frame;
using webapid::WorkerPool;

std::uint32_t NumberIn(std::string_view text) {
  std::uint32_t number = 0;
  static_cast<void>(std::from_chars(text.data(), text.data() + text.size(), number));
  return number;
}

class Front {
 public:
  Front() { StartWorker(); }

  void Step(std::string_view line) {
    const std::string_view word = Cut(line, " ");
    switch (word.empty() ? ' ' : word.front()) {
      case 's':
        return Submit(std::string(line));
      case 'a':
        return AnswerLast(line);
      case 'w':
        return AnswerWrongly(line);
      case 'b':
        return WriteNoise(line);
      case 'l':
        worker_ = FileDescriptor();
        return poller_.Wait(0);
      case 'n':
        return StartWorker();
      case 'd':
        return pool_.CheckDeadlines(WorkerPool::Time::max());
      default:
        return;
    }
  }

  void Finish() {
    pool_.FailAll();
    for (const auto& [call, answers] : answers_) {
      Require(answers == 1, "every call is answered once");
    }
  }

 private:
  void StartWorker() {
    std::array<int, 2> ends{};
    Require(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends.data()) == 0, "a socket");
    pool_.Use(0, ++generation_, FileDescriptor(ends[0]));
    worker_ = FileDescriptor(ends[1]);
    reader_ = webapid::FrameReader();
    asked_.reset();
  }

  void Submit(const std::string& text) {
    const int call = calls_++;
    answers_[call] = 0;
    const bool is_taken = pool_.Submit(
        webapid::kAdmin, {text}, WorkerPool::Time::max(),
        [this, call](int status, const std::string& answer) {
          ++answers_[call];
          Require(has_noise_ || answer.find("\"success\":false") != std::string::npos ||
                      given_.contains({status, answer}),
                  "an answer is a worker's, or a failure of the front's");
        });
    Require(is_taken, "few calls are always taken");
  }

  void ReadRequests() {
    std::array<char, 4096> piece{};
    ssize_t got = 0;
    while (worker_.IsOpen() &&
           (got = ::recv(worker_.Get(), piece.data(), piece.size(), MSG_DONTWAIT)) > 0) {
      reader_.Append({piece.data(), static_cast<std::size_t>(got)});
    }
    while (auto frame = reader_.Next()) {
      Require(frame->parts.size() == 1 && frame->code == webapid::kAdmin,
              "a worker gets what was submitted");
      // Noise may have been the right answer.
      Require(!asked_ || has_noise_, "a worker has one call at a time");
      asked_ = std::move(frame);
    }
  }

  void Write(const std::string& bytes) {
    if (worker_.IsOpen()) {
      static_cast<void>(::send(worker_.Get(), bytes.data(), bytes.size(), MSG_NOSIGNAL));
    }
    poller_.Wait(0);
  }

  // Which may be a frame, too.
  void WriteNoise(std::string_view bytes) {
    has_noise_ = true;
    Write(std::string(bytes));
  }

  void Give(const Frame& frame) {
    given_.insert({static_cast<int>(frame.code & ~webapid::kLastAnswer), frame.parts.front()});
    Write(webapid::Encode(frame));
  }

  void AnswerLast(std::string_view line) {
    ReadRequests();
    if (asked_) {
      const std::uint32_t code = NumberIn(Cut(line, " "));
      const Frame request = *std::exchange(asked_, std::nullopt);
      Give({request.index, request.generation, code, {std::string(line)}});
    }
  }

  void AnswerWrongly(std::string_view line) {
    Frame frame;
    frame.index = NumberIn(Cut(line, " "));
    frame.generation = NumberIn(Cut(line, " "));
    frame.code = NumberIn(Cut(line, " "));
    frame.parts.emplace_back(line);
    ReadRequests();
    if (asked_ && asked_->index == frame.index && asked_->generation == frame.generation) {
      asked_.reset();  // it was right
    }
    Give(frame);
  }

  webapid::Poller poller_;
  WorkerPool pool_{poller_, [](std::uint32_t, std::uint32_t) {}};
  FileDescriptor worker_;
  webapid::FrameReader reader_;
  std::optional<Frame> asked_;
  std::set<std::pair<int, std::string>> given_;
  std::map<int, int> answers_;
  int calls_ = 0;
  bool has_noise_ = false;
  std::uint32_t generation_ = 0;
};

}  // namespace
}  // namespace quillon::fuzz

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace quillon::fuzz;
  constexpr int kMostSteps = 100;
  [[maybe_unused]] static const bool is_prepared =
      (quillon::platform::UseConfiguration(QuietConfiguration()), true);
  std::string_view input = TextOf(data, size);
  Front front;
  for (int i = 0; i < kMostSteps && !input.empty(); ++i) {
    front.Step(Cut(input, "\n"));
  }
  front.Finish();
  return 0;
}
