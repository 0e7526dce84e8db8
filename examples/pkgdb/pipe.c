/* Named pipes: the one thing here that psp leaves to the platform, and how they become transports
 * of typed buffers. Nothing in here waits for ever, and nobody at the other end can stop it.
 *
 * A pipe is opened for reading together with a writing end of our own: it has no end of file then
 * when its last writer goes, and the server need not open it anew for each client. */
#define _POSIX_C_SOURCE 200809L
#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include "pkgdb.h"

/* Names come with the library's separator. */
static int to_native(char *native, size_t size, const char *path) {
  if (strlen(path) >= size) {
    errno = ENAMETOOLONG;
    return 0;
  }
  psp_strncpyZ(native, path, (uint32_t)size);
  for (; *native != '\0'; ++native) {
    if (*native == '\\') *native = '/';
  }
  return 1;
}

int make_pipe(const char *path) {
  char native[kSettingBytes];
  if (to_native(native, sizeof native, path)) {
    if (mkfifo(native, S_IRUSR | S_IWUSR) == 0 || errno == EEXIST) return 0;
  }
  return file_failed(path, "cannot be made", kFailed);
}

/* What lies there must be a pipe: a reply never goes into a file that somebody has put in the way.
 */
static int open_pipe(Pipe *pipe, const char *path, int flags, uint32_t patience) {
  char native[kSettingBytes];
  struct stat status;
  *pipe = (Pipe){.descriptor = -1, .patience = patience};
  if (!to_native(native, sizeof native, path)) return 0;
  signal(SIGPIPE, SIG_IGN); /* a reader that is gone is told by EPIPE */
  pipe->descriptor = open(native, flags | O_NONBLOCK | O_NOFOLLOW | O_CLOEXEC);
  if (pipe->descriptor == -1) return 0;
  if (fstat(pipe->descriptor, &status) == 0 && S_ISFIFO(status.st_mode)) return 1;
  close_pipe(pipe);
  errno = EINVAL;
  return 0;
}

int open_for_reading(Pipe *pipe, const char *path, uint32_t patience) {
  return open_pipe(pipe, path, O_RDWR, patience);
}

/* Fails when nobody reads. */
int open_for_writing(Pipe *pipe, const char *path, uint32_t patience) {
  return open_pipe(pipe, path, O_WRONLY, patience);
}

int is_lost_pipe(const char *path) {
  Pipe pipe;
  if (open_for_writing(&pipe, path, 0)) {
    close_pipe(&pipe);
    return 0;
  }
  return errno == ENXIO;
}

void close_pipe(Pipe *pipe) {
  if (pipe->descriptor != -1) close(pipe->descriptor);
  pipe->descriptor = -1;
}

static int32_t wait_until_ready(const Pipe *pipe, short events, uint32_t milliseconds) {
  struct pollfd request = {.fd = pipe->descriptor, .events = events};
  int ready;
  do {
    ready = poll(&request, 1, (int)milliseconds);
  } while (ready == -1 && errno == EINTR);
  return ready > 0 ? PSP_OKAY : ready == 0 ? PSP_TIMEOUT : PSP_FAILED;
}

/* ---- Transports ------------------------------------------------------------------------------ */

int32_t read_pipe_timed(void *context, void *buffer, uint32_t capacity, uint32_t *filled,
                        uint32_t milliseconds) {
  const Pipe *pipe = context;
  int32_t status = wait_until_ready(pipe, POLLIN, milliseconds);
  if (status != PSP_OKAY) return status;
  ssize_t count = read(pipe->descriptor, buffer, capacity);
  if (count < 0 && errno != EAGAIN && errno != EINTR) return PSP_FAILED;
  *filled = count > 0 ? (uint32_t)count : 0; /* with 0 the library asks again */
  return PSP_OKAY;
}

int32_t read_pipe(void *context, void *buffer, uint32_t capacity, uint32_t *filled) {
  const Pipe *pipe = context;
  return read_pipe_timed(context, buffer, capacity, filled, pipe->patience);
}

int32_t write_pipe(void *context, const void *data, uint32_t count) {
  const Pipe *pipe = context;
  const char *next = data;
  while (count > 0) {
    int32_t status = wait_until_ready(pipe, POLLOUT, pipe->patience);
    if (status != PSP_OKAY) return status;
    ssize_t written = write(pipe->descriptor, next, count);
    if (written < 0 && errno != EAGAIN && errno != EINTR) return PSP_FAILED;
    if (written <= 0) continue;
    next += written;
    count -= (uint32_t)written;
  }
  return PSP_OKAY;
}
