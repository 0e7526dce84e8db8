// Folders of small files, and the lock of their changes.
//
// Owns the places of service_places.h. The lock is one of a file, which nobody but its owner may
// open: a lock of the folder itself could be held by everybody who can read it. A crash inside a
// change leaves the old content or the new one, and perhaps a file ".NAME.new", which the next
// change of that name replaces.
#include "os/posix/posix.h"
// posix.h comes before every system header.
#include <fcntl.h>
#include <stdio.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include "os/posix/service_folder.h"
#include "os/posix/service_places.h"

namespace psp::os {

constinit ServicePlaces service_places = {"/var/lib/software/tavik/corvane/11.0/services",
                                          "/etc/systemd/system", "/run/systemd/system",
                                          "/bin/systemctl"};

namespace {

constexpr int kFolderFlags = O_RDONLY | O_DIRECTORY | O_CLOEXEC;
constexpr mode_t kFileMode = 0644;
constexpr mode_t kFolderMode = 0755;

constexpr char kLockFile[] = ".lock";  // no counter's file: those begin with no dot
constexpr int kLockFlags = O_RDWR | O_CREAT | O_NOFOLLOW | O_CLOEXEC;
constexpr mode_t kLockMode = 0600;

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

Error format_temporary_name(const char *name, char (&temporary)[kFileNameBytes]) {
  const int length = snprintf(temporary, kFileNameBytes, ".%s.new", name);
  return static_cast<size_t>(length) >= kFileNameBytes ? fail(ENAMETOOLONG) : 0;
}

}  // namespace

// ---- The lock -----------------------------------------------------------------------------------

// Released before it is closed: a process that was cloned meanwhile may have it open for a moment.
ServicesLock::~ServicesLock() {
  const LastErrorKeeper keeper;
  if (fd_ == -1) return;
  flock(fd_, LOCK_UN);
  close(fd_);
}

// File systems without such locks are used without.
Error ServicesLock::enter() {
  const Error error = create_folders(service_places.counters);
  if (error != 0) return error;
  NameBuffer path;
  const int length = snprintf(path, sizeof path, "%s/%s", service_places.counters, kLockFile);
  if (static_cast<size_t>(length) >= sizeof path) return fail(ENAMETOOLONG);
  fd_ = retry_interrupted([&] { return ::open(path, kLockFlags, kLockMode); });
  if (fd_ == -1) return last_error();
  const LastErrorKeeper keeper;
  retry_interrupted([&] { return flock(fd_, LOCK_EX); });
  return 0;
}

// ---- A folder -----------------------------------------------------------------------------------

Folder::~Folder() {
  const LastErrorKeeper keeper;
  if (fd_ != -1) close(fd_);
}

Error Folder::open(const char *path) {
  fd_ = retry_interrupted([&] { return ::open(path, kFolderFlags); });
  return fd_ == -1 ? last_error() : 0;
}

Error Folder::sync() const {
  if (retry_interrupted([&] { return fsync(fd_); }) == 0) return 0;
  return errno == EINVAL || errno == EOPNOTSUPP ? 0 : last_error();
}

// The mode does not depend on what the process masks out.
Error Folder::write_new(const char *name, std::string_view content) const {
  if (unlinkat(fd_, name, 0) == -1 && errno != ENOENT) return last_error();
  const int fd = above_standard(retry_interrupted([&] {
    return openat(fd_, name, O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, kFileMode);
  }));
  if (fd == -1) return last_error();
  Error error = fchmod(fd, kFileMode) == -1 ? last_error() : 0;
  if (error == 0) error = write_all(fd, content.data(), content.size());
  if (error == 0 && retry_interrupted([&] { return fsync(fd); }) == -1) error = last_error();
  if (close(fd) == -1 && errno != EINTR && error == 0) error = last_error();
  return error;
}

// A new name is taken away again when its folder cannot be synced.
Error Folder::name_new(const char *temporary, const char *name) const {
  if (linkat(fd_, temporary, fd_, name, 0) == -1) return last_error();
  const Error error = sync();
  if (error == 0) return 0;
  unlinkat(fd_, name, 0);
  return fail(error);
}

// The content that is replaced is gone, be the folder synced or not: that is no failure, though a
// power cut may bring it back.
Error Folder::replace(const char *temporary, const char *name) const {
  if (renameat(fd_, temporary, fd_, name) == -1) return last_error();
  const LastErrorKeeper keeper;
  sync();
  return 0;
}

Error Folder::put(const char *name, std::string_view content, bool replaces) {
  char temporary[kFileNameBytes];
  Error error = format_temporary_name(name, temporary);
  if (error != 0) return error;
  error = write_new(temporary, content);
  if (error == 0) error = replaces ? replace(temporary, name) : name_new(temporary, name);
  const bool is_gone = error == 0 && replaces;
  if (!is_gone) {
    const LastErrorKeeper keeper;
    unlinkat(fd_, temporary, 0);
  }
  return error;
}

// As for a replaced content.
Error Folder::remove(const char *name) {
  if (unlinkat(fd_, name, 0) == -1) return last_error();
  const LastErrorKeeper keeper;
  sync();
  return 0;
}

}  // namespace psp::os
