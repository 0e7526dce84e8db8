// The C library's functions that the platform layer calls, under the linker's --wrap: the call that
// the armed fault counts fails or moves less than it should. Only calls from inside the platform
// layer count. A close frees its descriptor whatever it returns.
#include <dirent.h>
#include <fcntl.h>
#include <linux/futex.h>
#include <poll.h>
#include <pthread.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "support/faults.h"

#if defined(SYS_close_range)
constexpr long kCloseRange = SYS_close_range;
#else
constexpr long kCloseRange = -1;
#endif

using psp::faults::system_call_fails;
using psp::faults::system_count;

// A name, what a failure gives, the result, the parameters and their names.
#define PSP_SYSTEM_CALLS(X)                                                                        \
  X(fsync, -1, int, (int fd), fd)                                                                  \
  X(fchmod, -1, int, (int fd, mode_t mode), fd, mode)                                              \
  X(chmod, -1, int, (const char *name, mode_t mode), name, mode)                                   \
  X(fchown, -1, int, (int fd, uid_t owner, gid_t group), fd, owner, group)                         \
  X(faccessat, -1, int, (int at, const char *name, int mode, int flags), at, name, mode, flags)    \
  X(futimens, -1, int, (int fd, const timespec *times), fd, times)                                 \
  X(flock, -1, int, (int fd, int operation), fd, operation)                                        \
  X(unlinkat, -1, int, (int at, const char *name, int flags), at, name, flags)                     \
  X(unlink, -1, int, (const char *name), name)                                                     \
  X(renameat, -1, int, (int at, const char *name, int to, const char *new_name), at, name, to,     \
    new_name)                                                                                      \
  X(linkat, -1, int, (int at, const char *name, int to, const char *new_name, int flags), at,      \
    name, to, new_name, flags)                                                                     \
  X(mkdir, -1, int, (const char *name, mode_t mode), name, mode)                                   \
  X(rmdir, -1, int, (const char *name), name)                                                      \
  X(opendir, nullptr, DIR *, (const char *name), name)                                             \
  X(fdopendir, nullptr, DIR *, (int fd), fd)                                                       \
  X(dup2, -1, int, (int fd, int place), fd, place)                                                 \
  X(readdir64, nullptr, dirent64 *, (DIR * directory), directory)                                  \
  X(realpath, nullptr, char *, (const char *name, char *resolved), name, resolved)                 \
  X(getcwd, nullptr, char *, (char *buffer, size_t size), buffer, size)                            \
  X(stat64, -1, int, (const char *name, struct stat64 *status), name, status)                      \
  X(lstat64, -1, int, (const char *name, struct stat64 *status), name, status)                     \
  X(fstat64, -1, int, (int fd, struct stat64 *status), fd, status)                                 \
  X(fstatat64, -1, int, (int at, const char *name, struct stat64 *status, int flags), at, name,    \
    status, flags)                                                                                 \
  X(lseek64, -1, off64_t, (int fd, off64_t offset, int origin), fd, offset, origin)                \
  X(ftruncate64, -1, int, (int fd, off64_t size), fd, size)                                        \
  X(poll, -1, int, (pollfd * requests, nfds_t count, int limit), requests, count, limit)           \
  X(mmap64, MAP_FAILED, void *,                                                                    \
    (void *at, size_t size, int rights, int flags, int fd, off64_t offset), at, size, rights,      \
    flags, fd, offset)                                                                             \
  X(socket, -1, int, (int domain, int type, int protocol), domain, type, protocol)                 \
  X(setsockopt, -1, int, (int fd, int level, int name, const void *value, socklen_t size), fd,     \
    level, name, value, size)                                                                      \
  X(sendto, -1, ssize_t,                                                                           \
    (int fd, const void *data, size_t size, int flags, const sockaddr *to, socklen_t to_size), fd, \
    data, size, flags, to, to_size)
// The thread sanitizer calls these before it is ready for any code of ours.
#define PSP_THREAD_CALLS(X)                                                                        \
  X(pthread_key_create, errno, int, (pthread_key_t * key, void (*end)(void *)), key, end)          \
  X(pthread_attr_init, errno, int, (pthread_attr_t * attributes), attributes)                      \
  X(pthread_attr_setstacksize, errno, int, (pthread_attr_t * attributes, size_t size), attributes, \
    size)                                                                                          \
  X(pthread_create, errno, int,                                                                    \
    (pthread_t * thread, const pthread_attr_t *attributes, void *(*run)(void *), void *argument),  \
    thread, attributes, run, argument)
#define PSP_TRANSFERS(X)                                                                        \
  X(read, (int fd, void *data, size_t count), fd, data, system_count(count))                    \
  X(write, (int fd, const void *data, size_t count), fd, data, system_count(count))             \
  X(pread64, (int fd, void *data, size_t count, off64_t offset), fd, data, system_count(count), \
    offset)                                                                                     \
  X(pwrite64, (int fd, const void *data, size_t count, off64_t offset), fd, data,               \
    system_count(count), offset)

extern "C" {

#define PSP_WRAP(name, failure, result, parameters, ...) \
  result __real_##name parameters;                       \
  result __wrap_##name parameters {                      \
    if (system_call_fails()) return failure;             \
    return __real_##name(__VA_ARGS__);                   \
  }
PSP_SYSTEM_CALLS(PSP_WRAP)
#if !defined(__SANITIZE_THREAD__)
PSP_THREAD_CALLS(PSP_WRAP)
#endif

#define PSP_WRAP_TRANSFER(name, parameters, ...) \
  PSP_WRAP(name, -1, ssize_t, parameters, __VA_ARGS__)
PSP_TRANSFERS(PSP_WRAP_TRANSFER)

int __real_close(int fd);
int __wrap_close(int fd) {
  const bool fails = system_call_fails();
  const int failure = errno;
  const int result = __real_close(fd);
  if (!fails) return result;
  errno = failure;
  return -1;
}

// Those whose last parameters may be missing: as words, which the caller's convention leaves where
// they are looked for. Of the calls by number those can fail here that may find the way barred.
PSP_WRAP(open64, -1, int, (const char *name, int flags, long mode), name, flags, mode)
PSP_WRAP(openat64, -1, int, (int at, const char *name, int flags, long mode), at, name, flags, mode)
PSP_WRAP(fcntl64, -1, int, (int fd, int command, long word), fd, command, word)
PSP_WRAP(ioctl, -1, int, (int fd, unsigned long request, long word), fd, request, word)

long __real_syscall(long number, long, long, long, long, long, long);
long __wrap_syscall(long number, long a, long b, long c, long d, long e, long f) {
  const bool is_wait = number == SYS_futex && (b & FUTEX_WAKE) == 0;
  const bool may_fail = number == SYS_renameat2 || number == SYS_clone || is_wait ||
                        number == SYS_getpriority || number == kCloseRange;
  if (may_fail && system_call_fails()) return -1;
  return __real_syscall(number, a, b, c, d, e, f);
}
}
