#pragma once

#include <pthread.h>

#include <memory>
#include <mutex>

namespace quillon::platform {

/// The process's only connection of a type, which closes before every fork. The state of SQLite
/// must not get into a child: it would believe that it holds the locks that its parent has, and
/// write without any.
template <typename Connection>
class ClosedBeforeFork {
 public:
  static ClosedBeforeFork& Get() {
    static ClosedBeforeFork only;
    return only;
  }

  std::mutex mutex;  ///< held by whoever uses the connection
  std::unique_ptr<Connection> connection;

 private:
  ClosedBeforeFork() { ::pthread_atfork(BeforeFork, AfterFork, AfterFork); }

  static void BeforeFork() {
    Get().mutex.lock();
    Get().connection.reset();
  }
  static void AfterFork() { Get().mutex.unlock(); }
};

}  // namespace quillon::platform
