// Installation counters: a folder with one small text file a name, each replaced in one step; and
// the folder of small files itself.
//
// Owns the places of service_places.h. Additions of all processes follow one another under a lock
// of the folder, which the kernel releases with its holder; readers take no lock. A crash leaves
// the old count or the new one, and perhaps a file ".NAME.new", which the next addition replaces.
#include "os/posix/posix.h"
// posix.h comes before every system header.
#include <fcntl.h>
#include <stdio.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <charconv>

#include "os/posix/service_folder.h"
#include "os/posix/service_places.h"

namespace psp::os {

constinit ServicePlaces service_places = {"/var/lib/software/tavik/corvane/11.0/services",
                                          "/etc/systemd/system", "/run/systemd/system",
                                          "/bin/systemctl"};

// ---- The folder ---------------------------------------------------------------------------------

namespace {

constexpr int kFolderFlags = O_RDONLY | O_DIRECTORY | O_CLOEXEC;
constexpr mode_t kFileMode = 0644;
constexpr mode_t kFolderMode = 0755;

Error format_temporary_name(const char *name, char (&temporary)[kFileNameBytes]) {
  const int length = snprintf(temporary, kFileNameBytes, ".%s.new", name);
  return length < 0 || static_cast<size_t>(length) >= kFileNameBytes ? fail(ENAMETOOLONG) : 0;
}

Error write_all(int fd, std::string_view content) {
  while (!content.empty()) {
    const ssize_t written =
        retry_interrupted([&] { return write(fd, content.data(), content.size()); });
    if (written == -1) return last_error();
    content.remove_prefix(static_cast<size_t>(written));
  }
  return 0;
}

}  // namespace

LockedFolder::~LockedFolder() {
  const LastErrorKeeper keeper;
  if (fd_ != -1) close(fd_);
}

// File systems without such locks are used without.
Error LockedFolder::open(const char *path) {
  fd_ = retry_interrupted([&] { return ::open(path, kFolderFlags); });
  if (fd_ == -1) return last_error();
  const LastErrorKeeper keeper;
  retry_interrupted([&] { return flock(fd_, LOCK_EX); });
  return 0;
}

Error LockedFolder::sync() const {
  if (retry_interrupted([&] { return fsync(fd_); }) == 0) return 0;
  return errno == EINVAL || errno == EOPNOTSUPP ? 0 : last_error();
}

// The mode does not depend on what the process masks out.
Error LockedFolder::write_new(const char *name, std::string_view content) const {
  if (unlinkat(fd_, name, 0) == -1 && errno != ENOENT) return last_error();
  const int fd = above_standard(retry_interrupted([&] {
    return openat(fd_, name, O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, kFileMode);
  }));
  if (fd == -1) return last_error();
  Error error = fchmod(fd, kFileMode) == -1 ? last_error() : 0;
  if (error == 0) error = write_all(fd, content);
  if (error == 0 && retry_interrupted([&] { return fsync(fd); }) == -1) error = last_error();
  if (close(fd) == -1 && errno != EINTR && error == 0) error = last_error();
  return error;
}

Error LockedFolder::put(const char *name, std::string_view content, bool replaces) {
  char temporary[kFileNameBytes];
  Error error = format_temporary_name(name, temporary);
  if (error != 0) return error;
  error = write_new(temporary, content);
  if (error == 0) {
    const int named =
        replaces ? renameat(fd_, temporary, fd_, name) : linkat(fd_, temporary, fd_, name, 0);
    if (named == -1) error = last_error();
  }
  const bool left = error != 0 || !replaces;
  if (left) {
    const LastErrorKeeper keeper;
    unlinkat(fd_, temporary, 0);
  }
  return error != 0 ? fail(error) : sync();
}

Error LockedFolder::remove(const char *name) {
  return unlinkat(fd_, name, 0) == -1 ? last_error() : sync();
}

// ---- Counters -----------------------------------------------------------------------------------

namespace {

constexpr size_t kCountBytes = 16;  // a number of 32 bits, its line end, a zero byte

bool is_plain(char c) {
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '_' ||
         c == '-' || c == '.';
}

// A name as a file name: what could mean something else there stands as %XX, so that different
// names have different files and none is hidden, another folder, or a temporary file.
Error counter_file(const char *name, char (&file)[kFileNameBytes]) {
  if (*name == '\0') return fail(EINVAL);
  size_t length = 0;
  for (const char *c = name; *c != '\0'; ++c) {
    if (length + 4 > kFileNameBytes) return fail(ENAMETOOLONG);
    if (is_plain(*c) && (*c != '.' || c != name)) {
      file[length++] = *c;
    } else {
      snprintf(file + length, 4, "%%%02X", static_cast<unsigned char>(*c));
      length += 3;
    }
  }
  file[length] = '\0';
  return 0;
}

Error parse_count(const char *text, uint32_t *count) {
  const char *end = text + strlen(text);
  const auto [stop, problem] = std::from_chars(text, end, *count);
  return problem == std::errc() && (stop == end || *stop == '\n') ? 0 : fail(EINVAL);
}

// A file is replaced whole, so that reading needs no lock, which an ordinary user could be kept
// waiting for.
Error read_count(const char *file, uint32_t *count) {
  NameBuffer path;
  const int length = snprintf(path, sizeof path, "%s/%s", service_places.counters, file);
  if (length < 0 || static_cast<size_t>(length) >= sizeof path) return fail(ENAMETOOLONG);
  const int fd = retry_interrupted([&] { return open(path, O_RDONLY | O_CLOEXEC); });
  if (fd == -1) return last_error();
  char text[kCountBytes] = {};
  const ssize_t got = retry_interrupted([&] { return read(fd, text, sizeof text - 1); });
  const Error error = got == -1 ? last_error() : 0;
  close(fd);
  return error == 0 ? parse_count(text, count) : fail(error);
}

// Creates what is missing on the way to the folder, and the folder, for everybody to pass through.
Error create_folders(const char *path) {
  NameBuffer prefix;
  const size_t length = strlen(path);
  if (length >= sizeof prefix) return fail(ENAMETOOLONG);
  for (size_t end = 1; end <= length; ++end) {
    if (path[end] != '/' && path[end] != '\0') continue;
    memcpy(prefix, path, end);
    prefix[end] = '\0';
    if (mkdir(prefix, kFolderMode) == 0) {
      if (chmod(prefix, kFolderMode) == -1) return last_error();
    } else if (errno != EEXIST) {
      return last_error();
    }
  }
  return 0;
}

}  // namespace

Error service_counter_read(const char *name, uint32_t *count) {
  char file[kFileNameBytes];
  const Error error = counter_file(name, file);
  return error == 0 ? read_count(file, count) : error;
}

Error service_counter_add(const char *name, int32_t change) {
  char file[kFileNameBytes];
  Error error = counter_file(name, file);
  if (error == 0) error = create_folders(service_places.counters);
  if (error != 0) return error;
  LockedFolder folder;
  error = folder.open(service_places.counters);
  if (error != 0) return error;
  uint32_t count = 0;
  if (read_count(file, &count) != 0) count = 0;
  const int64_t sum = std::clamp<int64_t>(int64_t{count} + change, 0, UINT32_MAX);
  char text[kCountBytes];
  const int length = snprintf(text, sizeof text, "%lld\n", static_cast<long long>(sum));
  return folder.put(file, {text, static_cast<size_t>(length)}, true);
}

}  // namespace psp::os
