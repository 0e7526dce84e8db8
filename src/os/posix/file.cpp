// Files for POSIX systems with open-file-description locks: opening under sharing modes, transfers,
// the lock of the first byte, lengths and times.
//
// Owns one counter, which picks bytes to lock and needs no guard. Everything else lives in the
// caller's File or in the kernel.
//
// What a call costs is counted in system calls. A transfer is one, unless it touches the first byte
// of a file. An open that denies nothing is two (open, lock), and one more for a read-only handle;
// a status query, the obvious way to learn what was opened, would cost a quarter of an open and is
// made where its answer is needed.
#include "os/posix/posix.h"
// posix.h comes before every system header.
#include <fcntl.h>
#include <poll.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include "core/checked.h"

namespace psp::os {
namespace {

// ---- Traits of a File ---------------------------------------------------------------------------

// Sharing may need a descriptor that can do more than its handle may.
constexpr uint32_t kNotReadable = 1u << 0;
constexpr uint32_t kNotWritable = 1u << 1;
// The sequential position is the descriptor's own. So it is for the standard channels, which may be
// files by redirection, shared with the C runtime and other processes and perhaps in append mode,
// and for pipes and terminals, which have no positions. Every other File keeps its position itself,
// so that sequential and positional transfers are the same call and the layer always knows whether
// a transfer touches the first byte.
constexpr uint32_t kDescriptorPosition = 1u << 2;
// The descriptor has been seen to have positions (unless kDescriptorPosition is set).
constexpr uint32_t kSeekable = 1u << 3;
constexpr uint32_t kHoldsFirstByte = 1u << 4;

int descriptor(const File &file) { return static_cast<int>(file.handle); }

// ---- Record locks -------------------------------------------------------------------------------

constexpr Error kSharingViolationCode = EBUSY;
constexpr Error kLockViolationCode = EAGAIN;

struct flock lock_request(short type, off_t start, off_t length) {
  struct flock request = {};
  request.l_type = type;
  request.l_whence = SEEK_SET;
  request.l_start = start;
  request.l_len = length;
  return request;
}

// Locks or unlocks a range for the open file description; never waits. Another's lock gives
// kLockViolationCode.
Error set_lock(int fd, struct flock request) {
  if (retry_interrupted([&] { return fcntl(fd, F_OFD_SETLK, &request); }) == 0) return 0;
  return errno == EACCES ? fail(kLockViolationCode) : last_error();
}

// Whether another's lock stands against the request. Nobody's does where there are no such locks.
bool another_holds(int fd, struct flock request) {
  LastErrorKeeper keeper;
  const int result = retry_interrupted([&] { return fcntl(fd, F_OFD_GETLK, &request); });
  return result == 0 && request.l_type != F_UNLCK;
}

bool locks_are_missing(Error error) {
  return error == EINVAL || error == ENOLCK || error == ENOSYS || error == EOPNOTSUPP;
}

// ---- Sharing modes ------------------------------------------------------------------------------
//
// A denial has to hold against handles of this process and of others, to end with the handle or a
// killed process, and to survive whatever else is done with the file.
//
// One would expect the classical record locks (F_SETLK) to do it. But they belong to the process:
// two handles of one process never exclude each other, and the close of ANY descriptor of the file,
// by the C runtime or a library that peeped into it, drops them all. flock locks belong to the open
// call, but know one kind of exclusion for the whole file. Open-file-description locks have both:
// ranges, and an owner that is the open call. They go when its last descriptor goes.
//
// But then a forked child holds such a descriptor too. Its exit drops nothing, and for the same
// reason a denial outlasts the handle's close until the child has ended or runs another program.
// file_close could unlock first, but then a child that closes what it inherited would drop the
// denials of its parent. Too long is safe, too short is not.
//
// The locks lie far beyond any content, where no file system enforces them, in three zones, one for
// each kind of access. A handle marks the zone of its own access and denies the zones of the
// accesses that it denies:
//
//     zone       marked by            denied by                mark     denial   both
//     reading    read-only handles    deny read                R all    W one    W all
//     updating   read-write handles   deny read, deny write    W one    R all    W all
//     writing    write-only handles   deny write               W one    R all    W all
//
// R and W are read and write locks, "all" the whole zone, "one" a byte of it, picked afresh each
// time. So marks stand side by side, denials stand side by side, and every mark meets every denial;
// the call that sets one is the test against the other, in one step of the kernel. One zone for
// readers and one for writers would do, but would cost read-write handles, the most common ones of
// a database, a second call; a handle that denies nothing has one mark and makes one call.
//
// A handle that denies both is alone: it takes all zones at once. One that reads and denies writing
// has the same lock in all three, which again is one. The other denials take two or three locks,
// and between them another open may meet the first locks of one that will fail at its last.
// Therefore the later locks are asked for before the first is taken; what is left, two opens at the
// same moment or two equal picks, is tried again a few times. Two opens cannot refuse each other
// for ever, because both take the zones in the same order.
//
// Read locks want a descriptor open for reading and write locks one open for writing. Hence, below,
// descriptors that can do more than their handles may.

constexpr off_t kZoneBytes = off_t{1} << 60;
constexpr off_t kReadingZone = off_t{1} << 62;
constexpr off_t kUpdatingZone = kReadingZone + kZoneBytes;
constexpr off_t kWritingZone = kUpdatingZone + kZoneBytes;
constexpr int kZones = 3;
constexpr off_t kAllZonesBytes = kZones * kZoneBytes;
constexpr int kClaimTries = 4;

constinit std::atomic<uint32_t> picks{0};

// A byte of a zone that no other handle is likely to pick, in this process (the count differs) or
// in another (the time or the address differs).
off_t pick_byte() {
  timespec now = {};
  clock_gettime(CLOCK_MONOTONIC, &now);
  uint64_t bits = static_cast<uint64_t>(now.tv_nsec) ^ static_cast<uint64_t>(now.tv_sec) << 30;
  bits ^= uint64_t{picks.fetch_add(1, std::memory_order_relaxed)} << 40;
  bits ^= static_cast<uint64_t>(reinterpret_cast<uintptr_t>(&now)) << 8;
  bits = (bits ^ bits >> 30) * 0xBF58476D1CE4E5B9u;  // spreads every bit over all
  bits = (bits ^ bits >> 27) * 0x94D049BB133111EBu;
  return static_cast<off_t>((bits ^ bits >> 31) % static_cast<uint64_t>(kZoneBytes));
}

// The locks that make up the marks and denials of one handle, in the order of the zones.
struct Claims {
  struct flock locks[kZones];
  int count = 0;

  void add(short type, off_t start, off_t length) {
    if (count > 0) {
      struct flock &last = locks[count - 1];
      if (last.l_type == type && last.l_start + last.l_len == start) {
        last.l_len += length;
        return;
      }
    }
    locks[count++] = lock_request(type, start, length);
  }

  // One row of the table; mark_type is the lock of its column "mark".
  void add_zone(off_t zone, short mark_type, bool marks, bool denies) {
    if (!marks && !denies) return;
    const bool reads = marks != denies && (mark_type == F_RDLCK) == marks;
    if (reads) {
      add(F_RDLCK, zone, kZoneBytes);
    } else if (marks && denies) {
      add(F_WRLCK, zone, kZoneBytes);
    } else {
      add(F_WRLCK, zone + pick_byte(), 1);
    }
  }
};

Claims claims_of(const OpenOptions &options) {
  Claims claims;
  if (options.deny_read && options.deny_write) {
    claims.add(F_WRLCK, kReadingZone, kAllZonesBytes);
    return claims;
  }
  const bool updates = options.read && options.write;
  claims.add_zone(kReadingZone, F_RDLCK, options.read && !updates, options.deny_read);
  claims.add_zone(kUpdatingZone, F_WRLCK, updates, options.deny_read || options.deny_write);
  claims.add_zone(kWritingZone, F_WRLCK, options.write && !updates, options.deny_write);
  return claims;
}

Error set_claims(int fd, const Claims &claims) {
  for (int index = 1; index < claims.count; ++index) {
    if (another_holds(fd, claims.locks[index])) return kLockViolationCode;
  }
  for (int index = 0; index < claims.count; ++index) {
    const Error error = set_lock(fd, claims.locks[index]);
    if (error != 0) return error;
  }
  return 0;
}

// File systems without such locks are used without sharing modes.
Error claim_sharing(int fd, const OpenOptions &options) {
  Error error = set_claims(fd, claims_of(options));
  for (int tries = 1; error == kLockViolationCode && tries < kClaimTries; ++tries) {
    set_lock(fd, lock_request(F_UNLCK, kReadingZone, kAllZonesBytes));
    sched_yield();
    error = set_claims(fd, claims_of(options));
  }
  if (error == kLockViolationCode) return kSharingViolationCode;
  return locks_are_missing(error) ? 0 : error;
}

// Whether the name leads to the open file; if not, it was renamed or removed between the open and
// the claim, and is nobody's to empty.
Error check_name(int fd, const char *path) {
  struct stat opened = {};
  struct stat named = {};
  if (retry_interrupted([&] { return fstat(fd, &opened); }) == -1) return last_error();
  if (retry_interrupted([&] { return stat(path, &named); }) == -1) {
    return errno == ENOENT ? kSharingViolationCode : last_error();
  }
  return is_same_file(opened, named) ? 0 : kSharingViolationCode;
}

bool denies_any(const OpenOptions &options) { return options.deny_read || options.deny_write; }

// Whether the descriptor must be open for reading and for writing: for the handle, or for its
// locks.
bool descriptor_reads(const OpenOptions &options) {
  return options.read || options.deny_read != options.deny_write;
}
bool descriptor_writes(const OpenOptions &options) {
  return options.write || options.truncate || options.deny_read;
}

// ---- Opening ------------------------------------------------------------------------------------

int open_above_standard(const char *path, int flags, mode_t permissions) {
  return above_standard(retry_interrupted([&] { return open(path, flags, permissions); }));
}

int open_flags(const OpenOptions &options) {
  int flags = O_CLOEXEC | O_NOCTTY;
  if (descriptor_reads(options)) {
    flags |= descriptor_writes(options) ? O_RDWR : O_RDONLY;
  } else {
    flags |= O_WRONLY;
  }
  // O_TRUNC would empty a file whose sharing mode then refuses the open.
  if (options.create) flags |= O_CREAT;
  return flags;
}

// Fails for a directory. The system itself refuses to open one for writing. For reading, a file, a
// pipe or a terminal says how many bytes can be read, at half the cost of a status query, and a
// directory does not; nor do some devices, so the status query has the last word.
Error refuse_directory(int fd, const OpenOptions &options, bool *is_regular) {
  *is_regular = false;
  const bool asks = denies_any(options);
  int readable_bytes = 0;
  if (!asks && (descriptor_writes(options) || ioctl(fd, FIONREAD, &readable_bytes) == 0)) return 0;
  struct stat status = {};
  if (retry_interrupted([&] { return fstat(fd, &status); }) == -1) return last_error();
  *is_regular = S_ISREG(status.st_mode);
  return S_ISDIR(status.st_mode) ? EISDIR : 0;
}

Error settle_open(int fd, const char *path, const OpenOptions &options) {
  bool is_regular = false;
  Error error = refuse_directory(fd, options, &is_regular);
  if (error != 0) return error;
  // Only regular files can be denied to others. Marks are set on anything and meet no denial there.
  if (!denies_any(options) || is_regular) error = claim_sharing(fd, options);
  // Who denies something may be about to replace what the file holds.
  if (error == 0 && denies_any(options)) error = check_name(fd, path);
  if (error != 0 || !options.truncate) return error;
  if (retry_interrupted([&] { return ftruncate(fd, 0); }) == 0) return 0;
  return errno == EINVAL ? 0 : last_error();  // a pipe or a device: there is nothing to empty
}

// ---- Replacements -------------------------------------------------------------------------------
//
// The name of a replacement is a lock: whoever has created the file, and holds the claim of it
// while the name leads to it, has the name. Without the claim nobody renames or removes it. So a
// process that opened the file of another, which then was renamed, finds the name gone behind its
// claim.

constexpr mode_t kOwnerOnly = 0600;
constexpr int kReplacementFlags = O_CLOEXEC | O_NOCTTY | O_NOFOLLOW | O_NONBLOCK;

// Others may read what has taken the name of the replaced file.
OpenOptions replacement_options() {
  OpenOptions options;
  options.write = true;
  options.deny_write = true;
  return options;
}

// A file that may be read only, as the replaced one, and that nobody holds any more.
int open_unwritable(const char *path) {
  const int fd = open_above_standard(path, O_RDONLY | kReplacementFlags, 0);
  if (fd == -1) return -1;
  Error error = 0;
  if (another_holds(fd, lock_request(F_WRLCK, kWritingZone, kZoneBytes))) {
    error = kSharingViolationCode;
  }
  if (error == 0) error = check_name(fd, path);
  if (error == 0 && retry_interrupted([&] { return fchmod(fd, kOwnerOnly); }) == -1) {
    error = last_error();
  }
  close(fd);
  if (error != 0) set_last_error(error);
  return error != 0 ? -1 : open_above_standard(path, O_RDWR | kReplacementFlags, 0);
}

// Where there are no locks, nobody can tell whether the file is still being written, and it stays.
Error remove_claimed(int fd, const char *path) {
  const Error error = set_claims(fd, claims_of(replacement_options()));
  if (error == kLockViolationCode || locks_are_missing(error)) return kSharingViolationCode;
  if (error != 0) return error;
  const Error moved = check_name(fd, path);
  if (moved != 0) return moved;
  return retry_interrupted([&] { return unlink(path); }) == 0 ? 0 : last_error();
}

// Removes the file that a killed process left.
Error remove_abandoned(const char *path) {
  struct stat status = {};
  if (retry_interrupted([&] { return lstat(path, &status); }) == -1) {
    return errno == ENOENT ? 0 : last_error();
  }
  if (!S_ISREG(status.st_mode)) return EEXIST;
  int fd = open_above_standard(path, O_RDWR | kReplacementFlags, 0);
  if (fd == -1 && errno == EACCES) fd = open_unwritable(path);
  if (fd == -1) return errno == ENOENT ? 0 : last_error();
  const Error error = remove_claimed(fd, path);
  close(fd);
  return error;
}

// Owner and group as far as the process may give them, and permissions that let nobody do what he
// could not do before. Without the group, those of the file's new group were others, and others
// may have been of the old group. Permissions that run a file as its owner stay with the owner.
Error take_over_access(int fd, const struct stat &model) {
  constexpr mode_t kSetIdBits = S_ISUID | S_ISGID;
  constexpr mode_t kNotOwner = S_IRWXG | S_IRWXO;
  constexpr auto kSameOwner = static_cast<uid_t>(-1);
  const auto give = [fd](uid_t owner, gid_t group) {
    return retry_interrupted([&] { return fchown(fd, owner, group); }) == 0;
  };
  mode_t bits = model.st_mode & 07777;
  if (!give(model.st_uid, model.st_gid)) {
    bits &= ~kSetIdBits;
    if (!give(kSameOwner, model.st_gid)) {
      const mode_t both = (bits >> 3) & bits & S_IRWXO;
      bits = (bits & ~kNotOwner) | both << 3 | both;
    }
  }
  return retry_interrupted([&] { return fchmod(fd, bits); }) == 0 ? 0 : last_error();
}

Error settle_replacement(int fd, const char *path, const struct stat &model) {
  Error error = claim_sharing(fd, replacement_options());
  if (error == 0) error = check_name(fd, path);
  if (error != 0) return error;  // the name is another's, or will be found abandoned
  error = take_over_access(fd, model);
  if (error != 0) retry_interrupted([&] { return unlink(path); });
  return error;
}

// ---- Transfers ----------------------------------------------------------------------------------

bool another_holds_first_byte(int fd) { return another_holds(fd, lock_request(F_WRLCK, 0, 1)); }

// Whether the handle may make the transfer. The lock of the first byte stops transfers by this test
// alone, so one that has passed it is not stopped by a lock that comes a moment later.
Error admit(const File &file, uint32_t refusing_trait, bool touches_first_byte) {
  if ((file.traits & refusing_trait) != 0) return fail(EBADF);
  if (!touches_first_byte || (file.traits & kHoldsFirstByte) != 0) return 0;
  return another_holds_first_byte(descriptor(file)) ? fail(kLockViolationCode) : 0;
}

bool wait_until_ready(int fd, short events) {
  pollfd request = {fd, events, 0};
  return retry_interrupted([&] { return poll(&request, 1, -1); }) != -1;
}

// A transfer of a pipe or a terminal. Whoever shares it may have made it non-blocking, which is a
// state of the open file and not of the descriptor; the callers of this layer are never told to
// come back later.
template <class Transfer>
ssize_t transfer_when_ready(int fd, short events, Transfer &&transfer) {
  for (;;) {
    const ssize_t moved = retry_interrupted(transfer);
    if (moved != -1 || errno != EAGAIN || !wait_until_ready(fd, events)) return moved;
  }
}

// Repeats write_rest(bytes written so far) until nothing remains or the platform stops.
template <class WriteRest>
Error write_whole(uint32_t count, uint32_t *done, WriteRest &&write_rest) {
  *done = 0;
  while (*done < count) {
    const ssize_t written = write_rest(*done);
    if (written == -1) return *done > 0 ? 0 : last_error();
    if (written == 0) break;
    *done += static_cast<uint32_t>(written);
  }
  return 0;
}

// Whether a failed transfer at the File's own position tells that there are no positions.
bool turns_out_a_stream(File *file, Error error) {
  if (error != ESPIPE) return false;
  file->traits |= kDescriptorPosition;
  return true;
}

const char *rest_of(const void *buffer, uint32_t done) {
  return static_cast<const char *>(buffer) + done;
}

// A descriptor that cannot be written takes no write lock. Read locks do not exclude each other, so
// such a handle looks for others after it has set its own, and takes it back if there is one; two
// that try at the same moment may both fail, but never both succeed.
Error lock_first_byte_for_reading(int fd) {
  const Error error = set_lock(fd, lock_request(F_RDLCK, 0, 1));
  if (error != 0) return error;
  if (!another_holds_first_byte(fd)) return 0;
  set_lock(fd, lock_request(F_UNLCK, 0, 1));
  return fail(kLockViolationCode);
}

}  // namespace

int above_standard(int fd) {
  if (fd == -1 || fd > STDERR_FILENO) return fd;
  const int moved = fcntl(fd, F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
  LastErrorKeeper keeper;
  close(fd);
  return moved;
}

Error write_all(int fd, const char *bytes, size_t count) {
  while (count > 0) {
    const ssize_t written = retry_interrupted([&] { return write(fd, bytes, count); });
    if (written == -1) return last_error();
    if (written == 0) return fail(EIO);  // a device that takes nothing and says nothing
    bytes += written;
    count -= static_cast<size_t>(written);
  }
  return 0;
}

Error file_open(const char *name, const OpenOptions &options, File *file) {
  NameBuffer buffer;
  const char *path = system_name(name, buffer);
  if (path == nullptr) return last_error();
  constexpr mode_t kEveryone = 0666;
  const int fd = open_above_standard(path, open_flags(options), kEveryone);
  if (fd == -1) return last_error();
  const Error error = settle_open(fd, path, options);
  if (error != 0) {
    close(fd);
    return fail(error);
  }
  *file = File{};
  file->handle = fd;
  if (!options.read) file->traits |= kNotReadable;
  if (!options.write) file->traits |= kNotWritable;
  return 0;
}

Error file_create_replacement(const char *name, const char *replaced, File *file) {
  NameBuffer buffer;
  NameBuffer replaced_buffer;
  const char *path = system_name(name, buffer);
  const char *replaced_path = system_name(replaced, replaced_buffer);
  if (path == nullptr || replaced_path == nullptr) return last_error();
  struct stat model = {};
  if (retry_interrupted([&] { return stat(replaced_path, &model); }) == -1) return last_error();
  if (!S_ISREG(model.st_mode)) return fail(EINVAL);
  constexpr int kFlags = O_RDWR | O_CREAT | O_EXCL | kReplacementFlags;
  const Error before = last_error();
  int fd = open_above_standard(path, kFlags, kOwnerOnly);
  if (fd == -1 && errno == EEXIST) {
    const Error error = remove_abandoned(path);
    if (error != 0) return fail(error);
    fd = open_above_standard(path, kFlags, kOwnerOnly);
    // Somebody was faster.
    if (fd == -1 && errno == EEXIST) return fail(kSharingViolationCode);
  }
  if (fd == -1) return last_error();
  const Error error = settle_replacement(fd, path, model);
  if (error != 0) {
    close(fd);
    return fail(error);
  }
  set_last_error(before);
  *file = File{};
  file->handle = fd;
  file->traits = kNotReadable;
  return 0;
}

Error file_standard(StandardChannel channel, File *file) {
  LastErrorKeeper keeper;
  int fd = STDIN_FILENO;
  if (channel == StandardChannel::kOutput) fd = STDOUT_FILENO;
  if (channel == StandardChannel::kError) fd = STDERR_FILENO;
  *file = File{};
  file->traits = kDescriptorPosition;
  if (fcntl(fd, F_GETFD) != -1) file->handle = fd;
  return 0;
}

Error file_close(File *file) {
  const int fd = descriptor(*file);
  *file = File{};
  // Interrupted or not, the descriptor is gone.
  return close(fd) == 0 || errno == EINTR ? 0 : last_error();
}

// The end of a file that keeps its own position is found with the descriptor's, which nobody uses.
Error file_seek(File *file, int64_t offset, Origin origin) {
  const int fd = descriptor(*file);
  if ((file->traits & kDescriptorPosition) != 0) {
    const int whence = origin == Origin::kStart     ? SEEK_SET
                       : origin == Origin::kCurrent ? SEEK_CUR
                                                    : SEEK_END;
    return lseek(fd, offset, whence) == -1 ? last_error() : 0;
  }
  int64_t base = origin == Origin::kCurrent ? file->position : 0;
  if (origin == Origin::kEnd || (file->traits & kSeekable) == 0) {
    const off_t place = lseek(fd, 0, origin == Origin::kEnd ? SEEK_END : SEEK_CUR);
    if (place == -1) return last_error();
    if (origin == Origin::kEnd) base = place;
    file->traits |= kSeekable;
  }
  int64_t position = 0;
  if (!checked_add(base, offset, &position)) return fail(EOVERFLOW);
  if (position < 0) return fail(EINVAL);
  file->position = position;
  return 0;
}

Error file_read(File *file, void *buffer, uint32_t count, uint32_t *done) {
  if ((file->traits & kDescriptorPosition) == 0) {
    const Error error = file_read_at(file, file->position, buffer, count, done);
    file->position += *done;
    if (!turns_out_a_stream(file, error)) return error;
  }
  *done = 0;
  const Error refused = admit(*file, kNotReadable, false);
  if (refused != 0) return refused;
  const int fd = descriptor(*file);
  const ssize_t got = transfer_when_ready(fd, POLLIN, [&] { return read(fd, buffer, count); });
  if (got == -1) return last_error();
  *done = static_cast<uint32_t>(got);
  return 0;
}

Error file_read_at(File *file, int64_t offset, void *buffer, uint32_t count, uint32_t *done) {
  *done = 0;
  const Error refused = admit(*file, kNotReadable, offset == 0);
  if (refused != 0) return refused;
  const int fd = descriptor(*file);
  const ssize_t got = retry_interrupted([&] { return pread(fd, buffer, count, offset); });
  if (got == -1) return last_error();
  *done = static_cast<uint32_t>(got);
  return 0;
}

Error file_write(File *file, const void *buffer, uint32_t count, uint32_t *done) {
  if ((file->traits & kDescriptorPosition) == 0) {
    const Error error = file_write_at(file, file->position, buffer, count, done);
    file->position += *done;
    if (!turns_out_a_stream(file, error)) return error;
  }
  *done = 0;
  const Error refused = admit(*file, kNotWritable, false);
  if (refused != 0) return refused;
  const int fd = descriptor(*file);
  return write_whole(count, done, [&](uint32_t so_far) {
    return transfer_when_ready(fd, POLLOUT,
                               [&] { return write(fd, rest_of(buffer, so_far), count - so_far); });
  });
}

Error file_write_at(File *file, int64_t offset, const void *buffer, uint32_t count,
                    uint32_t *done) {
  *done = 0;
  const Error refused = admit(*file, kNotWritable, offset == 0);
  if (refused != 0) return refused;
  const int fd = descriptor(*file);
  return write_whole(count, done, [&](uint32_t so_far) {
    return retry_interrupted(
        [&] { return pwrite(fd, rest_of(buffer, so_far), count - so_far, offset + so_far); });
  });
}

Error file_size(const File &file, int64_t *size) {
  const int fd = descriptor(file);
  if ((file.traits & kDescriptorPosition) == 0) {
    const off_t end = lseek(fd, 0, SEEK_END);
    if (end == -1) return last_error();
    *size = end;
    return 0;
  }
  struct stat status = {};
  if (retry_interrupted([&] { return fstat(fd, &status); }) == -1) return last_error();
  if (!S_ISREG(status.st_mode)) return fail(ESPIPE);
  *size = status.st_size;
  return 0;
}

Error file_cut(File *file, int64_t size) {
  const Error error = file_seek(file, size, Origin::kStart);
  if (error != 0) return error;
  if ((file->traits & kNotWritable) != 0) return fail(EBADF);
  const int fd = descriptor(*file);
  return retry_interrupted([&] { return ftruncate(fd, size); }) == -1 ? last_error() : 0;
}

// Pipes and terminals refuse, but keep nothing that could be lost: no failure, and no code that a
// caller who looks at the last error would take for one.
Error file_sync(File *file) {
  const Error before = last_error();
  const int fd = descriptor(*file);
  if (retry_interrupted([&] { return fsync(fd); }) == 0) return 0;
  if (errno != EINVAL) return last_error();
  set_last_error(before);
  return 0;
}

// The lock belongs to the open file description, as the sharing modes do: it conflicts with every
// other handle, and a forked child shares it with its parent.
Error file_lock_first_byte(File *file) {
  if ((file->traits & kHoldsFirstByte) != 0) return fail(kLockViolationCode);
  const int fd = descriptor(*file);
  Error error = set_lock(fd, lock_request(F_WRLCK, 0, 1));
  if (error == EBADF) error = lock_first_byte_for_reading(fd);
  if (error == 0) file->traits |= kHoldsFirstByte;
  return error;
}

Error file_unlock_first_byte(File *file) {
  if ((file->traits & kHoldsFirstByte) == 0) return fail(ENOLCK);
  const Error error = set_lock(descriptor(*file), lock_request(F_UNLCK, 0, 1));
  if (error == 0) file->traits &= ~kHoldsFirstByte;
  return error;
}

Error file_status(const char *name, FileStatus *status) {
  NameBuffer buffer;
  const char *path = system_name(name, buffer);
  if (path == nullptr) return last_error();
  struct stat answer = {};
  if (retry_interrupted([&] { return stat(path, &answer); }) == -1) return last_error();
  status->size = answer.st_size;
  status->modified_seconds = answer.st_mtime;
  status->is_directory = S_ISDIR(answer.st_mode);
  status->is_regular = S_ISREG(answer.st_mode);
  return 0;
}

Error refusal_code(Refusal refusal) {
  switch (refusal) {
    case Refusal::kAccessDenied:
      return EACCES;
    case Refusal::kNotFound:
      return ENOENT;
    default:
      return EINVAL;
  }
}

Condition file_condition(Error error) {
  switch (error) {
    case kLockViolationCode:
      return Condition::kLockViolation;
    case kSharingViolationCode:
      return Condition::kSharingViolation;
    case ENOMEM:
      return Condition::kShortOfMemory;
    case EMFILE:
    case ENFILE:
      return Condition::kShortOfHandles;
    case ENOBUFS:
      return Condition::kTooLargeForSystem;
    case EEXIST:
      return Condition::kAlreadyExists;
    case ENOENT:
      return Condition::kNotFound;
    case ERANGE:
      return Condition::kBufferTooSmall;
    case EACCES:
    case EPERM:
      return Condition::kAccessDenied;
    default:
      return Condition::kOther;
  }
}

}  // namespace psp::os
