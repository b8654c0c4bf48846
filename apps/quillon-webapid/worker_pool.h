#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <string>
#include <vector>

#include <quillon/platform/file_descriptor.h>

#include "frame.h"
#include "poller.h"

namespace quillon::webapid {

/// The front's side of the workers: gives each one call at a time, and answers for one that dies or
/// takes too long.
class WorkerPool {
 public:
  using Time = std::chrono::steady_clock::time_point;
  /// Is called once for every call that was taken.
  using Answered = std::function<void(int status, std::string text)>;
  /// Asks for a worker to be killed and replaced.
  using Replace = std::function<void(std::uint32_t worker, std::uint32_t generation)>;

  /// Calls that wait for a worker at most, and the bytes of all of them.
  static constexpr std::size_t kMostWaiting = 256;
  static constexpr std::size_t kMostWaitingBytes = 128 << 20;

  WorkerPool(Poller& poller, Replace replace) : poller_(poller), replace_(std::move(replace)) {}
  WorkerPool(const WorkerPool&) = delete;
  WorkerPool& operator=(const WorkerPool&) = delete;
  ~WorkerPool();

  /// A worker was started: the socket to it.
  void Use(std::uint32_t worker, std::uint32_t generation, platform::FileDescriptor socket);
  /// Takes a call, to be answered by `deadline`. False when too many are waiting.
  bool Submit(Role role, std::vector<std::string> parts, Time deadline, Answered answered);
  /// Answers the calls whose time is up.
  void CheckDeadlines(Time now);
  /// Answers everything that runs or waits.
  void FailAll();

 private:
  // A call, at its index; the generation grows when another call takes its place.
  struct Call {
    std::uint32_t generation = 0;
    Time deadline;
    Answered answered;  // empty: a free place
    std::string bytes;  // until a worker has it
  };
  struct Worker {
    std::uint32_t generation = 0;
    platform::FileDescriptor socket;
    FrameReader reader;
    std::string unsent;  // a request of which `sent` bytes have left already
    std::size_t sent = 0;
    bool waits_to_send = false;
    std::uint32_t call = kNone;
  };
  static constexpr std::uint32_t kNone = UINT32_MAX;

  std::uint32_t TakePlace();
  void Answer(std::uint32_t index, int status, std::string text);
  void Dispatch();
  void Handle(std::uint32_t index, std::uint32_t events);
  void SendMore(Worker& worker);
  void ReceiveMore(std::uint32_t index);
  void TakeAnswer(Worker& worker, Frame frame);
  void Drop(Worker& worker, int status, const char* message);

  Poller& poller_;
  Replace replace_;
  std::vector<Call> calls_;
  std::vector<std::uint32_t> free_;
  std::deque<std::uint32_t> waiting_;
  std::size_t waiting_bytes_ = 0;
  std::deque<Worker> workers_;
};

}  // namespace quillon::webapid
