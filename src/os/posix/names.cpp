// Names for POSIX systems: which are the same, removing, renaming that never replaces, and
// replacing in one step.
//
// Owns one counter, which tells temporary names apart and needs no guard. A rename within a file
// system is one system call.
#include "os/posix/posix.h"
// posix.h comes before every system header.
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

namespace psp::os {

namespace {

constexpr size_t kPieceBytes = 8192;  // of a copy; it lies on the stack
constexpr int kTemporaryTries = 100;
constexpr mode_t kOwnerOnly = 0600;
constexpr mode_t kPermissionBits = 07777;
constexpr mode_t kSetIdBits = S_ISUID | S_ISGID;
constexpr unsigned kNoReplace = 1;  // RENAME_NOREPLACE, which not every C library has

constinit std::atomic<uint32_t> temporary_names{0};

// A path, relative to an open directory.
struct Place {
  int directory;
  const char *path;
};

bool find(const Place &place, struct stat *status) {
  return retry_interrupted([&] {
           return fstatat(place.directory, place.path, status, AT_SYMLINK_NOFOLLOW);
         }) == 0;
}

Error remove_file(const Place &place) {
  const int removed = retry_interrupted([&] { return unlinkat(place.directory, place.path, 0); });
  return removed == 0 ? 0 : last_error();
}

// Takes the old name from a file that has got the new one; or, failing that, the new one again.
Error finish_renaming(const Place &from, const Place &to) {
  const Error error = remove_file(from);
  if (error == 0) return 0;
  remove_file(to);
  return fail(error);
}

// ---- Renaming without replacing -----------------------------------------------------------------

bool has_no_second_names(Error error) {
  return error == EPERM || error == EMLINK || error == ENOSYS || error == EOPNOTSUPP;
}

Error rename_replacing(const Place &from, const Place &to) {
  const int renamed =
      retry_interrupted([&] { return renameat(from.directory, from.path, to.directory, to.path); });
  return renamed == 0 ? 0 : last_error();
}

Error rename_after_look(const Place &from, const Place &to) {
  struct stat there = {};
  if (find(to, &there)) return fail(EEXIST);
  return errno == ENOENT ? rename_replacing(from, to) : last_error();
}

// For kernels and file systems (network and user-space ones) that cannot rename without replacing.
//
// A file gets the new name beside the old one, which fails if there is one, and then loses the old.
// Nothing is ever replaced; in between, and for good after a crash there, it has both names.
//
// A directory cannot have two names, nor can a file on some file systems. They are renamed after a
// look at the new name, and what appears there between the two steps is replaced: by a directory
// only an empty directory, by a file any other file. There is no better way left.
Error rename_in_steps(const Place &from, const Place &to) {
  struct stat status = {};
  if (!find(from, &status)) return last_error();
  if (S_ISDIR(status.st_mode)) return rename_after_look(from, to);
  const int linked = retry_interrupted(
      [&] { return linkat(from.directory, from.path, to.directory, to.path, 0); });
  if (linked == 0) return finish_renaming(from, to);
  const Error error = last_error();
  return has_no_second_names(error) ? rename_after_look(from, to) : error;
}

Error rename_without_replacing(const Place &from, const Place &to) {
  const long renamed = retry_interrupted([&] {
    return syscall(SYS_renameat2, from.directory, from.path, to.directory, to.path, kNoReplace);
  });
  if (renamed == 0) return 0;
  // A directory that would get inside itself is invalid too, and meets the same answer again.
  return errno == EINVAL || errno == ENOSYS ? rename_in_steps(from, to) : last_error();
}

// ---- The directory around a name ----------------------------------------------------------------

// The open directory that holds a name, and the name's last component.
class Surroundings {
 public:
  Surroundings() = default;
  Surroundings(const Surroundings &) = delete;
  Surroundings &operator=(const Surroundings &) = delete;
  ~Surroundings() {
    LastErrorKeeper keeper;
    if (directory_ != -1) close(directory_);
  }

  Error open_for(const char *path);

  Place place(const char *name) const { return {directory_, name}; }
  Place last() const { return place(last_); }

  // Makes the names in the directory durable, where the file system can and the process may read
  // the directory.
  Error sync() const {
    LastErrorKeeper keeper;
    if (is_readable_ && retry_interrupted([&] { return fsync(directory_); }) == -1 &&
        errno != EINVAL && errno != EOPNOTSUPP) {
      return last_error();
    }
    return 0;
  }

 private:
  int directory_ = -1;
  bool is_readable_ = true;
  const char *last_ = nullptr;
};

Error Surroundings::open_for(const char *path) {
  const char *slash = strrchr(path, '/');
  last_ = slash == nullptr ? path : slash + 1;
  if (*last_ == '\0') return fail(*path == '\0' ? ENOENT : ENOTDIR);
  NameBuffer directory = ".";
  if (slash != nullptr) {
    const size_t length = slash == path ? 1 : static_cast<size_t>(slash - path);
    if (length >= sizeof(directory)) return fail(ENAMETOOLONG);
    memcpy(directory, path, length);
    directory[length] = '\0';
  }
  constexpr int kFlags = O_DIRECTORY | O_CLOEXEC;
  directory_ = retry_interrupted([&] { return open(directory, O_RDONLY | kFlags); });
  // One that may be used but not read can be used, though not synced.
  if (directory_ == -1 && errno == EACCES) {
    is_readable_ = false;
    directory_ = retry_interrupted([&] { return open(directory, O_PATH | kFlags); });
  }
  return directory_ == -1 ? last_error() : 0;
}

// ---- Moving a file to another file system -------------------------------------------------------

using TemporaryName = char[64];

Error create_temporary(const Surroundings &around, TemporaryName &name, int *fd) {
  for (int tries = 0; tries < kTemporaryTries; ++tries) {
    timespec now = {};
    clock_gettime(CLOCK_MONOTONIC, &now);
    snprintf(name, sizeof(name), ".psp-%d-%u-%ld.tmp", static_cast<int>(getpid()),
             temporary_names.fetch_add(1, std::memory_order_relaxed), now.tv_nsec);
    const Place place = around.place(name);
    const int created = retry_interrupted([&] {
      return openat(place.directory, place.path, O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC | O_NOCTTY,
                    kOwnerOnly);
    });
    *fd = above_standard(created);
    if (*fd != -1) return 0;
    if (created != -1) {
      const LastErrorKeeper keeper;
      unlinkat(place.directory, place.path, 0);
    }
    if (created != -1 || errno != EEXIST) break;
  }
  return last_error();
}

Error copy_content(File *from, int to) {
  char piece[kPieceBytes];
  for (;;) {
    uint32_t count = 0;
    Error error = file_read(from, piece, kPieceBytes, &count);
    if (error == 0 && count == 0) return 0;
    if (error == 0) error = write_all(to, piece, count);
    if (error != 0) return error;
  }
}

// The permissions that a file may take over from one whose owner it could not get: those that run
// it as the owner must not follow.
mode_t permissions(const struct stat &model, bool same_owner) {
  const mode_t bits = model.st_mode & kPermissionBits;
  return same_owner ? bits : bits & ~kSetIdBits;
}

// Owner, permissions and times as far as the process may set them.
void copy_attributes(int from, int to) {
  LastErrorKeeper keeper;
  struct stat model = {};
  if (retry_interrupted([&] { return fstat(from, &model); }) == -1) return;
  const bool same_owner =
      retry_interrupted([&] { return fchown(to, model.st_uid, model.st_gid); }) == 0;
  retry_interrupted([&] { return fchmod(to, permissions(model, same_owner)); });
  const timespec times[] = {model.st_atim, model.st_mtim};
  retry_interrupted([&] { return futimens(to, times); });
}

// Content, attributes and their way to the disk. Closes the copy whatever happens.
Error fill_copy(File *from, int to) {
  Error error = copy_content(from, to);
  if (error == 0) copy_attributes(static_cast<int>(from->handle), to);
  if (error == 0 && retry_interrupted([&] { return fsync(to); }) == -1) error = last_error();
  if (close(to) == -1 && errno != EINTR && error == 0) error = last_error();
  return error;
}

// The copy stands under its name, durable but for the name itself, or nowhere.
Error place_copy(File *from, const Surroundings &around) {
  TemporaryName temporary;
  int fd = -1;
  Error error = create_temporary(around, temporary, &fd);
  if (error != 0) return error;
  error = fill_copy(from, fd);
  if (error == 0) error = rename_without_replacing(around.place(temporary), around.last());
  if (error == 0) return 0;
  remove_file(around.place(temporary));
  return fail(error);
}

Error open_for_move(const Place &from, File *file) {
  struct stat status = {};
  if (!find(from, &status)) return last_error();
  if (!S_ISREG(status.st_mode)) return fail(EXDEV);
  OpenOptions options;
  options.read = true;
  options.deny_write = true;
  return file_open(from.path, options, file);
}

// Nobody who uses the library writes the file meanwhile: its handles would go on writing what has
// lost its name. Extended attributes are not taken along. A crash may leave the temporary file, or
// both names with the whole content; never less than one.
Error rename_across(const char *old_path, const char *new_path) {
  Surroundings around;
  Error error = around.open_for(new_path);
  if (error != 0) return error;
  struct stat there = {};
  if (find(around.last(), &there)) return fail(EEXIST);  // told before the whole copy is made
  const Place from = {AT_FDCWD, old_path};
  File file;
  error = open_for_move(from, &file);
  if (error != 0) return error;
  error = place_copy(&file, around);
  if (error == 0) {
    error = around.sync();
    if (error != 0) remove_file(around.last());
  }
  if (error == 0) error = finish_renaming(from, around.last());
  file_close(&file);
  return error == 0 ? 0 : fail(error);
}

// What a name leads to; *found tells whether it leads anywhere.
Error status_of(const char *name, struct stat *status, bool *found) {
  NameBuffer buffer;
  const char *path = system_name(name, buffer);
  if (path == nullptr) return last_error();
  *found = retry_interrupted([&] { return stat(path, status); }) == 0;
  if (*found || errno == ENOENT || errno == ENOTDIR || errno == ELOOP) return 0;
  return last_error();
}

Error copy_name(const char *name, char *buffer, size_t size) {
  const size_t bytes = strlen(name) + 1;
  if (bytes > size) return fail(ERANGE);
  memcpy(buffer, name, bytes);
  return 0;
}

}  // namespace

bool names_are_equal(const char *first, const char *second) {
  const auto system_character = [](char c) { return c == '\\' ? '/' : c; };
  while (system_character(*first) == system_character(*second)) {
    if (*first == '\0') return true;
    ++first;
    ++second;
  }
  return false;
}

Error names_lead_to_same_file(const char *first, const char *second, bool *same) {
  struct stat one = {};
  struct stat other = {};
  bool is_one = false;
  bool is_other = false;
  Error error = status_of(first, &one, &is_one);
  if (error == 0) error = status_of(second, &other, &is_other);
  if (error != 0) return error;
  *same = is_one && is_other && is_same_file(one, other);
  return 0;
}

// A target whose real name holds a backslash cannot be told: the library would take it for a
// separator.
Error link_target(const char *name, char *buffer, size_t size) {
  NameBuffer name_buffer;
  const char *path = system_name(name, name_buffer);
  if (path == nullptr) return last_error();
  struct stat status = {};
  if (!find({AT_FDCWD, path}, &status)) return last_error();
  if (!S_ISLNK(status.st_mode)) return copy_name(name, buffer, size);
  NameBuffer target;
  const char *resolved = nullptr;
  const int before = errno;
  do {
    errno = before;
    resolved = realpath(path, target);
  } while (resolved == nullptr && errno == EINTR);
  if (resolved == nullptr) return last_error();
  return strchr(resolved, '\\') != nullptr ? fail(EINVAL) : copy_name(resolved, buffer, size);
}

Error file_remove(const char *name) {
  NameBuffer buffer;
  const char *path = system_name(name, buffer);
  return path == nullptr ? last_error() : remove_file({AT_FDCWD, path});
}

Error file_rename(const char *old_name, const char *new_name) {
  NameBuffer old_buffer;
  NameBuffer new_buffer;
  const char *old_path = system_name(old_name, old_buffer);
  const char *new_path = system_name(new_name, new_buffer);
  if (old_path == nullptr || new_path == nullptr) return last_error();
  const Error error = rename_without_replacing({AT_FDCWD, old_path}, {AT_FDCWD, new_path});
  return error == EXDEV ? rename_across(old_path, new_path) : error;
}

Error file_replace(const char *old_name, const char *new_name) {
  NameBuffer old_buffer;
  NameBuffer new_buffer;
  const char *old_path = system_name(old_name, old_buffer);
  const char *new_path = system_name(new_name, new_buffer);
  if (old_path == nullptr || new_path == nullptr) return last_error();
  Surroundings around;
  Error error = around.open_for(new_path);
  if (error != 0) return error;
  error = rename_replacing({AT_FDCWD, old_path}, around.last());
  if (error != 0) return error;
  const Error unsynced = around.sync();
  if (unsynced != 0) set_last_error(unsynced);
  return 0;
}

}  // namespace psp::os
