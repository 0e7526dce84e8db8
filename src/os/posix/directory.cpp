// Directories for POSIX systems: creating, removing and reading them, the current one and the
// system's temporary one.
//
// Owns nothing: an iteration is the C runtime's directory stream in the caller's Directory.
#include "os/posix/posix.h"
// posix.h comes before every system header.
#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace psp::os {

namespace {

constexpr mode_t kEveryone = 0777;  // less what the process masks out
constexpr char kTemporaryDirectory[] = "/tmp";

DIR *stream_of(const Directory &directory) { return static_cast<DIR *>(directory.state); }

// Most file systems tell the type with the name. Where they do not, and for a link, which counts as
// what it leads to, the entry is asked; one that leads nowhere, or goes away meanwhile, is no
// directory.
bool is_directory(DIR *stream, const dirent &entry) {
#if defined(DT_DIR)
  if (entry.d_type != DT_UNKNOWN && entry.d_type != DT_LNK) return entry.d_type == DT_DIR;
#endif
  LastErrorKeeper keeper;
  struct stat status = {};
  const int result =
      retry_interrupted([&] { return fstatat(dirfd(stream), entry.d_name, &status, 0); });
  return result == 0 && S_ISDIR(status.st_mode);
}

// The same stream on a descriptor above the standard channels'; a failure ends the stream.
DIR *move_above_standard(DIR *stream) {
  const int fd = fcntl(dirfd(stream), F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
  DIR *moved = fd != -1 ? fdopendir(fd) : nullptr;
  LastErrorKeeper keeper;
  if (moved == nullptr && fd != -1) close(fd);
  closedir(stream);
  return moved;
}

}  // namespace

Error directory_create(const char *name) {
  NameBuffer buffer;
  const char *path = system_name(name, buffer);
  if (path == nullptr) return last_error();
  return retry_interrupted([&] { return mkdir(path, kEveryone); }) == -1 ? last_error() : 0;
}

Error directory_remove(const char *name) {
  NameBuffer buffer;
  const char *path = system_name(name, buffer);
  if (path == nullptr) return last_error();
  return retry_interrupted([&] { return rmdir(path); }) == -1 ? last_error() : 0;
}

// The C runtime opens the descriptor close-on-exec.
Error directory_open(const char *name, Directory *directory) {
  NameBuffer buffer;
  const char *path = system_name(name, buffer);
  if (path == nullptr) return last_error();
  const int before = errno;
  DIR *stream = nullptr;
  do {
    errno = before;
    stream = opendir(path);
  } while (stream == nullptr && errno == EINTR);
  if (stream != nullptr && dirfd(stream) <= STDERR_FILENO) stream = move_above_standard(stream);
  if (stream == nullptr) return last_error();
  directory->state = stream;
  return 0;
}

// The end of the directory leaves errno alone, a failure sets it. To the library a name that holds
// a backslash would be a path, perhaps of another file, so it is none that is told.
bool directory_next(Directory *directory, DirectoryEntry *entry) {
  DIR *stream = stream_of(*directory);
  const int before = errno;
  const dirent *found = nullptr;
  do {
    errno = 0;
    found = readdir(stream);
  } while (found == nullptr ? errno == EINTR : strchr(found->d_name, '\\') != nullptr);
  if (found != nullptr || errno == 0) errno = before;
  if (found == nullptr) return false;
  entry->name = found->d_name;
  entry->is_directory = is_directory(stream, *found);
  return true;
}

void directory_close(Directory *directory) {
  LastErrorKeeper keeper;
  closedir(stream_of(*directory));
  *directory = Directory{};
}

Error current_directory(char *buffer, size_t size) {
  const int before = errno;
  const char *found = nullptr;
  do {
    errno = before;
    found = getcwd(buffer, size);
  } while (found == nullptr && errno == EINTR);
  return found == nullptr ? last_error() : 0;
}

Error system_temporary_directory(char *buffer, size_t size) {
  if (size < sizeof kTemporaryDirectory) return fail(ERANGE);
  memcpy(buffer, kTemporaryDirectory, sizeof kTemporaryDirectory);
  return 0;
}

}  // namespace psp::os
