// Running a command of the system and waiting for its end, unseen by the rest of the process.
//
// A child of an ordinary kind would raise SIGCHLD, be met by a client's waitpid(-1), or vanish with
// its status where SIGCHLD is ignored. So a go-between runs and awaits the command. It is cloned
// without a signal for its end, which the kernel then neither raises nor lets ignore, and which
// only a wait that asks for such children (__WALL) meets. It cannot be the command itself: exec
// gives a process its signal back. The status comes through a shared page, so that it is right even
// where the clone has to be an ordinary child.
//
// The go-between holds nothing of the client while the command runs, which may take long: its
// descriptors would keep pipes without an end, and sockets and locks of a client that was killed.
//
// Owns nothing and takes no lock. Between a clone and the exec or exit only async-signal-safe calls
// are made: other threads may hold the C runtime's locks at that moment, for ever in the copy.
#include "os/posix/posix.h"
// posix.h comes before every system header.
#include <dirent.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <charconv>
#include <new>

namespace psp::os {
namespace {

constexpr int kNoStatus = -1;
constexpr int kNotRun = 127;  // as shells tell it

using Status = std::atomic<int>;

const char *const kEnvironment[] = {"PATH=/usr/sbin:/usr/bin:/sbin:/bin", "LC_ALL=C", nullptr};

// fork without the C runtime's part. end_signal is what the end of the child raises; 0 is nothing.
pid_t clone_process(long end_signal) {
#if defined(__s390x__) || defined(__s390__)
  return static_cast<pid_t>(syscall(SYS_clone, 0L, end_signal, 0L, 0L, 0L));
#else
  return static_cast<pid_t>(syscall(SYS_clone, end_signal, 0L, 0L, 0L, 0L));
#endif
}

// A user-mode emulator has no children without a signal.
pid_t clone_silent_process() {
  const pid_t child = clone_process(0);
  return child == -1 && errno == EINVAL ? clone_process(SIGCHLD) : child;
}

void restore_default_signals() {
  struct sigaction action = {};
  action.sa_handler = SIG_DFL;
  sigemptyset(&action.sa_mask);
  for (int signal = 1; signal < NSIG; ++signal) sigaction(signal, &action, nullptr);
}

// For kernels that close no range: what the process's folder lists, which may change meanwhile.
void close_listed_from(int first) {
  alignas(dirent64) char entries[2048];
  const int folder = open("/proc/self/fd", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (folder == -1) return;
  long bytes;
  while ((bytes = syscall(SYS_getdents64, folder, entries, sizeof entries)) > 0) {
    for (const char *at = entries; at < entries + bytes;) {
      const auto *entry = reinterpret_cast<const dirent64 *>(at);
      at += entry->d_reclen;
      int fd = -1;
      std::from_chars(entry->d_name, entry->d_name + strlen(entry->d_name), fd);
      if (fd >= first && fd != folder) close(fd);
    }
  }
  close(folder);
}

void close_all_from(int first) {
#if defined(SYS_close_range)
  if (syscall(SYS_close_range, static_cast<unsigned>(first), ~0U, 0U) == 0) return;
#endif
  close_listed_from(first);
}

// Puts nothing in the place of the client's standard files, and closes its others.
bool leave_files() {
  const int nothing = open("/dev/null", O_RDWR);
  for (const int standard : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
    if (nothing == -1 || dup2(nothing, standard) == -1) return false;
  }
  close_all_from(STDERR_FILENO + 1);
  return true;
}

[[noreturn]] void become(const char *const *arguments) {
  sigset_t none;
  sigemptyset(&none);
  sigprocmask(SIG_SETMASK, &none, nullptr);
  execve(arguments[0], const_cast<char *const *>(arguments),
         const_cast<char *const *>(kEnvironment));
  _exit(kNotRun);
}

[[noreturn]] void go_between(const char *const *arguments, Status *status) {
  restore_default_signals();
  if (!leave_files()) _exit(kNotRun);
  const pid_t command = clone_process(SIGCHLD);
  if (command == 0) become(arguments);
  int end = 0;
  if (command != -1 && retry_interrupted([&] { return waitpid(command, &end, 0); }) == command &&
      WIFEXITED(end)) {
    status->store(WEXITSTATUS(end));
  }
  _exit(0);
}

// No handler of the client may run in the copies, so all signals wait until they stand.
pid_t start_go_between(const char *const *arguments, Status *status) {
  sigset_t all;
  sigset_t kept;
  sigfillset(&all);
  pthread_sigmask(SIG_SETMASK, &all, &kept);
  const pid_t child = clone_silent_process();
  if (child == 0) go_between(arguments, status);
  pthread_sigmask(SIG_SETMASK, &kept, nullptr);
  return child;
}

}  // namespace

int run_command(const char *const *arguments) {
  const LastErrorKeeper keeper;
  const CancellationPause pause;  // the go-between would stay, and the page
  void *page =
      mmap(nullptr, sizeof(Status), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
  if (page == MAP_FAILED) return kNoStatus;
  auto *status = new (page) Status(kNoStatus);
  const pid_t child = start_go_between(arguments, status);
  if (child != -1) retry_interrupted([&] { return waitpid(child, nullptr, __WALL); });
  const int result = status->load();
  munmap(page, sizeof(Status));
  return result;
}

}  // namespace psp::os
