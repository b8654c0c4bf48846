#pragma once

#include <unistd.h>

#include <cstdlib>

extern "C" {

/// Forks a process in the background that nobody waits for: it leaves no zombie, whatever the
/// caller does about its children. Answers its process id in the caller, 0 in the child, and -1
/// with `errno` set when there is none.
///
/// The child is a session of its own, with nothing but an empty stream as its standard input and
/// output, and as its standard error unless the mail log goes there. The sockets that it inherited
/// are closed; every other descriptor stays. Use `VELA::EndChildAfter` around whatever calls this.
int VLIBCProcForkChildNoWait();

}  // extern "C"

namespace VELA {

/// Runs `job`, which may fork a process in the background. In the caller this is a plain call. A
/// child that comes back from the job, whether by return or by an exception, ends here: it runs no
/// exit handlers and flushes no streams, because both are its parent's.
template <typename Job>
void EndChildAfter(const Job& job) {
  // Not what fork answered: the job may well have handled that by itself.
  const pid_t caller = ::getpid();
  const auto end_child = [caller](int status) {
    if (::getpid() != caller) {
      ::_exit(status);
    }
  };
  try {
    job();
  } catch (...) {
    end_child(EXIT_FAILURE);
    throw;
  }
  end_child(EXIT_SUCCESS);
}

}  // namespace VELA
