#include "worker_pool.h"

#include <sys/epoll.h>
#include <sys/socket.h>
#include <syslog.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <string_view>
#include <utility>

#include <velamailserver/maillog.h>

#include "envelope.h"

namespace quillon::webapid {

namespace {

constexpr char kSourceFile[] = "apps/quillon-webapid/worker_pool";
constexpr int kDroppedLine = 31;
constexpr int kOverdueLine = 37;

}  // namespace

WorkerPool::~WorkerPool() {
  for (const Worker& worker : workers_) {
    if (worker.socket.IsOpen()) {
      poller_.Remove(worker.socket.Get());
    }
  }
}

void WorkerPool::Use(std::uint32_t worker, std::uint32_t generation,
                     platform::FileDescriptor socket) {
  while (workers_.size() <= worker) {
    workers_.emplace_back();
  }
  Worker& place = workers_[worker];
  Drop(place, 502, "the worker was replaced");
  place.generation = generation;
  place.socket = std::move(socket);
  poller_.Add(place.socket.Get(), EPOLLIN,
              [this, worker](std::uint32_t events) { Handle(worker, events); });
  Dispatch();
}

bool WorkerPool::Submit(Role role, std::vector<std::string> parts, Time deadline,
                        Answered answered) {
  std::size_t size = 0;
  for (const std::string& part : parts) {
    size += part.size();
  }
  if (waiting_.size() >= kMostWaiting || waiting_bytes_ + size > kMostWaitingBytes) {
    return false;
  }
  const std::uint32_t index = TakePlace();
  Call& call = calls_[index];
  call.bytes = Encode({index, call.generation, role, std::move(parts)});
  call.deadline = deadline;
  call.answered = std::move(answered);
  waiting_bytes_ += call.bytes.size();
  waiting_.push_back(index);
  Dispatch();
  return true;
}

std::uint32_t WorkerPool::TakePlace() {
  if (free_.empty()) {
    calls_.emplace_back();
    return static_cast<std::uint32_t>(calls_.size() - 1);
  }
  const std::uint32_t index = free_.back();
  free_.pop_back();
  return index;
}

void WorkerPool::Answer(std::uint32_t index, int status, std::string text) {
  Call& call = calls_[index];
  const Answered answered = std::exchange(call.answered, nullptr);
  ++call.generation;
  free_.push_back(index);
  answered(status, std::move(text));
}

void WorkerPool::Dispatch() {
  for (Worker& worker : workers_) {
    if (waiting_.empty()) {
      return;
    }
    if (!worker.socket.IsOpen() || worker.call != kNone) {
      continue;
    }
    worker.call = waiting_.front();
    waiting_.pop_front();
    worker.unsent = std::exchange(calls_[worker.call].bytes, {});
    waiting_bytes_ -= worker.unsent.size();
    SendMore(worker);
  }
}

void WorkerPool::Handle(std::uint32_t index, std::uint32_t events) {
  if ((events & EPOLLOUT) != 0) {
    SendMore(workers_[index]);
  }
  if ((events & (EPOLLIN | EPOLLHUP | EPOLLERR)) != 0) {
    ReceiveMore(index);
  }
  Dispatch();
}

// A worker that is gone is noticed when its end of the stream is read.
void WorkerPool::SendMore(Worker& worker) {
  const std::string_view rest = std::string_view(worker.unsent).substr(worker.sent);
  const ssize_t sent =
      ::send(worker.socket.Get(), rest.data(), rest.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
  const bool is_gone = sent < 0 && errno != EAGAIN && errno != EINTR;
  worker.sent += static_cast<std::size_t>(std::max<ssize_t>(sent, 0));
  if (is_gone || worker.sent == worker.unsent.size()) {
    worker.unsent = std::string();
    worker.sent = 0;
  }
  const bool waits = !worker.unsent.empty();
  if (waits != worker.waits_to_send) {
    poller_.Change(worker.socket.Get(), waits ? EPOLLIN | EPOLLOUT : EPOLLIN);
    worker.waits_to_send = waits;
  }
}

void WorkerPool::ReceiveMore(std::uint32_t index) {
  Worker& worker = workers_[index];
  std::array<char, 65536> piece;  // NOLINT(cppcoreguidelines-pro-type-member-init): filled by recv
  const ssize_t got = ::recv(worker.socket.Get(), piece.data(), piece.size(), MSG_DONTWAIT);
  if (got < 0 && (errno == EAGAIN || errno == EINTR)) {
    return;
  }
  if (got <= 0) {
    Drop(worker, 502, "the worker died");
    return;
  }
  worker.reader.Append({piece.data(), static_cast<std::size_t>(got)});
  try {
    while (auto frame = worker.reader.Next()) {
      TakeAnswer(worker, std::move(*frame));
    }
  } catch (const FrameError& error) {
    const std::uint32_t generation = worker.generation;
    Drop(worker, 502, error.what());
    replace_(index, generation);
  }
}

void WorkerPool::TakeAnswer(Worker& worker, Frame frame) {
  if (worker.call == kNone || frame.index != worker.call ||
      frame.generation != calls_[worker.call].generation || frame.parts.size() != 1) {
    throw FrameError("the worker answers what it was not asked");
  }
  const std::uint32_t index = std::exchange(worker.call, kNone);
  if ((frame.code & kLastAnswer) != 0) {
    Drop(worker, 0, nullptr);
  }
  Answer(index, static_cast<int>(frame.code & ~kLastAnswer), std::move(frame.parts.front()));
}

void WorkerPool::Drop(Worker& worker, int status, const char* message) {
  if (!worker.socket.IsOpen()) {
    return;
  }
  poller_.Remove(worker.socket.Get());
  worker.socket = platform::FileDescriptor();
  worker.reader = FrameReader();
  worker.unsent = std::string();
  worker.sent = 0;
  worker.waits_to_send = false;
  if (worker.call == kNone) {
    return;
  }
  const std::uint32_t index = std::exchange(worker.call, kNone);
  maillog(LOG_ERR, "%s:%d a call is lost: %s", kSourceFile, kDroppedLine, message);
  Answer(index, status, FailureText(status, message));
}

void WorkerPool::CheckDeadlines(Time now) {
  for (std::uint32_t i = 0; i < workers_.size(); ++i) {
    Worker& worker = workers_[i];
    if (worker.call != kNone && calls_[worker.call].deadline <= now) {
      const std::uint32_t generation = worker.generation;
      Drop(worker, 504, "the call took too long");
      replace_(i, generation);
    }
  }
  // Those that wait were taken in the order of their deadlines.
  while (!waiting_.empty() && calls_[waiting_.front()].deadline <= now) {
    const std::uint32_t index = waiting_.front();
    waiting_.pop_front();
    waiting_bytes_ -= calls_[index].bytes.size();
    calls_[index].bytes = std::string();
    maillog(LOG_ERR, "%s:%d no worker was free for a call in time", kSourceFile, kOverdueLine);
    Answer(index, 503, FailureText(503, "no worker was free in time"));
  }
}

void WorkerPool::FailAll() {
  for (Worker& worker : workers_) {
    Drop(worker, 503, "the server stops");
  }
  while (!waiting_.empty()) {
    const std::uint32_t index = waiting_.front();
    waiting_.pop_front();
    waiting_bytes_ -= calls_[index].bytes.size();
    Answer(index, 503, FailureText(503, "the server stops"));
  }
}

}  // namespace quillon::webapid
