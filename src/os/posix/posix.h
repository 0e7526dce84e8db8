// What the files of the POSIX port share: wide file offsets and times, the repetition of
// interrupted calls, and names as the system wants them.
//
// Included first by files of this folder that name such types or calls, and by nobody else: the
// two switches below act only before the first system header.
#pragma once

#if !defined(_FILE_OFFSET_BITS)
#define _FILE_OFFSET_BITS 64
#endif
#if !defined(_TIME_BITS)
#define _TIME_BITS 64
#endif

#include <errno.h>
#include <limits.h>
#include <pthread.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/types.h>

#include "os/os.h"

namespace psp::os {

static_assert(sizeof(off_t) == sizeof(int64_t), "offsets and lengths are 64 bits everywhere");

// Makes a call again for as long as a signal interrupts it; a call that then succeeds has left
// errno alone. Not for close: the descriptor is gone whatever close returns, and by a second call
// another thread's new one may go.
template <class Call>
inline auto retry_interrupted(Call &&call) {
  const int before = errno;
  auto result = call();
  if (result != -1 || errno != EINTR) return result;
  while (result == -1 && errno == EINTR) result = call();
  if (result != -1) errno = before;
  return result;
}

// Leaves the code of a failure that no system call has left, or that later calls may have replaced.
inline Error fail(Error error) {
  set_last_error(error);
  return error;
}

inline bool is_same_file(const struct stat &one, const struct stat &other) {
  return one.st_dev == other.st_dev && one.st_ino == other.st_ino;
}

using NameBuffer = char[PATH_MAX];

// The one place where a name of the library becomes a name of the system: backslashes turn into
// slashes, in the buffer, which is left alone where there is none. Null with ENAMETOOLONG for names
// that no system call takes.
inline const char *system_name(const char *name, NameBuffer &buffer) {
  const char *backslash = strchr(name, '\\');
  if (backslash == nullptr) return name;
  const size_t size = static_cast<size_t>(backslash - name) + strlen(backslash) + 1;
  if (size > sizeof(buffer)) {
    errno = ENAMETOOLONG;
    return nullptr;
  }
  memcpy(buffer, name, size);
  for (char *place = buffer + (backslash - name); place != nullptr; place = strchr(place, '\\')) {
    *place = '/';
  }
  return buffer;
}

// ---- Shared by files of this folder ------------------------------------------------------------

// Moves a new descriptor that is one of 0 to 2 above them: in a process that closed a standard
// channel, what others print would go into the file. -1 stays what it is; a move that fails closes
// the descriptor.
int above_standard(int fd);

// Writes all the bytes at the descriptor's position.
Error write_all(int fd, const char *bytes, size_t count);

// While installed, SIGTERM calls control, on a thread of its own, and no interrupt handler,
// whichever of the two was installed first. Removing waits for a running call, so it must not be
// made inside one. One thread makes the calls one after the other.
Error install_stop_control(void (*control)());
void remove_stop_control();

// Whether service_run serves in this process.
bool is_serving();

// While it lives the calling thread cannot be cancelled, nor can a copy of it in a cloned process.
class CancellationPause {
 public:
  CancellationPause() { pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &before_); }
  ~CancellationPause() { pthread_setcancelstate(before_, &before_); }
  CancellationPause(const CancellationPause &) = delete;
  CancellationPause &operator=(const CancellationPause &) = delete;

 private:
  int before_ = PTHREAD_CANCEL_ENABLE;
};

// Runs a program in silence: arguments[0] is its path, null ends the arguments. Its exit status, or
// -1 when it could not be run or was killed. The caller's handling of ended children meets nothing
// of it, and no process is left behind.
int run_command(const char *const *arguments);

}  // namespace psp::os
