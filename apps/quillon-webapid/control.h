#pragma once

#include <cstdint>
#include <optional>
#include <vector>

#include <quillon/platform/file_descriptor.h>

namespace quillon::webapid {

/// What the supervisor and the front tell each other, over a socket of records.
struct ControlMessage {
  enum Kind : std::uint32_t {
    kSettings,       ///< to the front: its settings, in a file; see `FrontSettings`
    kWorker,         ///< to the front: the socket to a worker that was started
    kStop,           ///< to the front: finish what is running and end
    kReady,          ///< from the front: it listens
    kAlive,          ///< from the front, about every second
    kReplaceWorker,  ///< from the front: this worker is of no use any more
  };
  Kind kind;
  std::uint32_t worker = 0;      ///< which one,
  std::uint32_t generation = 0;  ///< and which of those that were started as this one
};

struct ReceivedMessage {
  ControlMessage message;
  std::vector<platform::FileDescriptor> descriptors;
};

/// Both ends of the socket, closed on exec. Throws `std::system_error`.
struct ControlSockets {
  platform::FileDescriptor ours;
  platform::FileDescriptor theirs;
};
ControlSockets MakeControlSockets();

/// False when the other side is gone, or does not read.
bool Send(int socket, const ControlMessage& message, const std::vector<int>& descriptors = {});

/// The next message, without waiting for one unless the socket blocks. Throws `std::system_error`
/// when the other side is gone, or sends what is no message of these.
std::optional<ReceivedMessage> Receive(int socket);

}  // namespace quillon::webapid
