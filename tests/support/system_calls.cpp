// The C library's functions that the platform layer calls, under the linker's --wrap: the call that
// the armed fault counts fails or moves less than it should. Only calls from inside the platform
// layer count. A close frees its descriptor whatever it returns.
#include <linux/futex.h>
#include <sys/syscall.h>

#include "support/faults.h"

#if defined(SYS_close_range)
constexpr long kCloseRange = SYS_close_range;
#else
constexpr long kCloseRange = -1;
#endif

using psp::faults::system_call_fails;
using psp::faults::system_count;

extern "C" {

// Arguments and results go through as words, which the caller's convention leaves where they are
// looked for, whatever their number and types.
#define PSP_WRAP(name, failure, count)                                                    \
  int64_t __real_##name(long, long, long, long, long, long, long, long);                  \
  int64_t __wrap_##name(long a, long b, long c, long d, long e, long f, long g, long h) { \
    if (system_call_fails()) return failure;                                              \
    return __real_##name(a, b, count, d, e, f, g, h);                                     \
  }
#define PSP_WRAP_CALL(name) PSP_WRAP(name, -1, c)
#define PSP_WRAP_POINTER(name) PSP_WRAP(name, 0, c)
#define PSP_WRAP_ERROR(name) PSP_WRAP(name, errno, c)
#define PSP_WRAP_TRANSFER(name) PSP_WRAP(name, -1, static_cast<long>(system_count(c)))

// clang-format off
#define PSP_CALLS(X) \
  X(fsync) X(fchmod) X(chmod) X(fchown) X(faccessat) X(futimens) X(flock) X(unlinkat) X(unlink) \
  X(renameat) X(linkat) X(mkdir) X(rmdir) X(dup2) X(stat64) X(lstat64) X(fstat64) X(fstatat64) \
  X(lseek64) X(ftruncate64) X(poll) X(mmap64) X(socket) X(setsockopt) X(sendto) X(open64) \
  X(openat64) X(fcntl64) X(ioctl)
// clang-format on
PSP_CALLS(PSP_WRAP_CALL)
#define PSP_POINTERS(X) X(opendir) X(fdopendir) X(readdir64) X(realpath) X(getcwd)
PSP_POINTERS(PSP_WRAP_POINTER)
#define PSP_TRANSFERS(X) X(read) X(write) X(pread64) X(pwrite64)
PSP_TRANSFERS(PSP_WRAP_TRANSFER)
// The thread sanitizer calls these before it is ready for any code of ours.
#if !defined(__SANITIZE_THREAD__)
#define PSP_THREAD_CALLS(X) \
  X(pthread_key_create) X(pthread_attr_init) X(pthread_attr_setstacksize) X(pthread_create)
PSP_THREAD_CALLS(PSP_WRAP_ERROR)
#endif

int __real_close(int fd);
int __wrap_close(int fd) {
  const bool fails = system_call_fails();
  const int failure = errno;
  const int result = __real_close(fd);
  if (!fails) return result;
  errno = failure;
  return -1;
}

// Of the calls by number those can fail here that may find the way barred.
long __real_syscall(long number, long, long, long, long, long, long);
long __wrap_syscall(long number, long a, long b, long c, long d, long e, long f) {
  const bool is_wait = number == SYS_futex && (b & FUTEX_WAKE) == 0;
  const bool may_fail = number == SYS_renameat2 || number == SYS_clone || is_wait ||
                        number == SYS_getpriority || number == kCloseRange;
  if (may_fail && system_call_fails()) return -1;
  return __real_syscall(number, a, b, c, d, e, f);
}
}
