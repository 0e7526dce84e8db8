// Module pspfile: file handles.
//
// A handle is one file of the disk, one of the process's standard channels, or a file of the
// in-memory store; mode word and name decide at the open. What a file can do is asked of the
// platform (os.h) or of the store (pspmfile.h), whose answers are passed on; here stands what the
// library makes of the platform's: the process-wide modes, the messages, and which failures are
// tried again.
//
// Owns the file tag, which holds every handle and its name and has a lock of its own. A handle is
// used by one thread at a time; nothing else is shared.
//
// On the disk the transfers, seeks and locks allocate nothing. Their message of a failure is the
// last thing they do and nothing is held then, so that they need no exported_call of their own.

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <limits>

#include "core/exported_call.h"
#include "core/lifecycle.h"
#include "core/modules.h"
#include "files/files.h"
#include "memstore/pspmfile.h"
#include "os/os.h"
#include "psp.h"

// A file handle. Its name, as the caller gave it, stands behind it in the same block: the two live
// and die together, and an open costs one allocation.
struct psp_file {
  psp::memstore::StoreFile *stored;  // null: a file of the platform's
  psp::os::File disk;  // without a handle: a standard channel that the process does not have
  uint32_t flags;      // PSP_OPEN_ bits, CREATE and TRUNCATE done with
  uint16_t mode;       // PSP_FILE_ bits
  bool is_standard_channel;

  char *name() { return reinterpret_cast<char *>(this + 1); }
};

namespace psp::files {
namespace {

constexpr char kSource[] = "pspfile.cpp";
constexpr int32_t kTransferFailed = -1;
constexpr int32_t kSetSizeFailed = -1;
constexpr int64_t kUnknown = -1;
constexpr uint32_t kTransferMaxBytes = std::numeric_limits<int32_t>::max();
constexpr uint32_t kGrowthBytes = 10240;  // what one write of a growing file appends at most

constexpr char kZeros[kGrowthBytes] = {};

struct State {
  psp_tag *tag = nullptr;
};

constinit State state;

bool is_handle(const psp_file *file) {
  if (file != nullptr) return true;
  refuse(os::Refusal::kInvalidArgument);
  return false;
}

// ---- Opening and closing ------------------------------------------------------------------------

bool find_standard_channel(const char *name, os::StandardChannel *channel) {
  struct Row {
    const char *name;
    os::StandardChannel channel;
  };
  static constexpr Row kChannels[] = {{"stdout", os::StandardChannel::kOutput},
                                      {"stdin", os::StandardChannel::kInput},
                                      {"stderr", os::StandardChannel::kError}};
  for (const Row &row : kChannels) {
    if (strcmp(name, row.name) != 0) continue;
    *channel = row.channel;
    return true;
  }
  return false;
}

psp_file *make_handle(const char *name, uint32_t flags, uint16_t mode) {
  const size_t name_bytes = strlen(name) + 1;
  void *memory = psp_getMem(sizeof(psp_file) + name_bytes, state.tag, PSP_MEM_ALLOC, nullptr,
                            kSource, __LINE__);
  if (memory == nullptr) return nullptr;
  auto *file = static_cast<psp_file *>(memory);
  *file = psp_file{nullptr, os::File{}, flags, mode, false};
  memcpy(file->name(), name, name_bytes);
  return file;
}

os::Error open_on_disk(psp_file *file) {
  const bool updates = (file->flags & PSP_OPEN_READWRITE) != 0;
  const bool writes = updates || (file->flags & PSP_OPEN_WRITE) != 0;
  const bool creates = (file->flags & PSP_OPEN_CREATE) != 0;
  if (core::no_disk() || (core::read_only() && (writes || creates))) {
    return refuse(os::Refusal::kAccessDenied);
  }
  os::OpenOptions options;
  options.read = updates || !writes;
  options.write = writes;
  options.create = creates;
  options.truncate = (file->flags & PSP_OPEN_TRUNCATE) != 0;
  options.deny_read = (file->mode & PSP_FILE_DENY_READ) != 0;
  options.deny_write = (file->mode & PSP_FILE_DENY_WRITE) != 0;
  return os::file_open(file->name(), options, &file->disk);
}

// The standard channels come before the modes: they are there in every mode.
bool open_side(psp_file *file) {
  if ((file->mode & PSP_FILE_MEMORY) != 0) {
    file->stored = memstore::mfile_open(file->name(), file->flags);
    return file->stored != nullptr;
  }
  os::StandardChannel channel;
  if (!find_standard_channel(file->name(), &channel)) return open_on_disk(file) == 0;
  file->is_standard_channel = true;
  return os::file_standard(channel, &file->disk) == 0;
}

psp_file *open_file(const char *name, uint32_t flags, uint16_t mode) {
  if (!core::started() || name == nullptr) {
    refuse(os::Refusal::kInvalidArgument);
    return nullptr;
  }
  if ((flags & PSP_OPEN_TRUNCATE) != 0) flags |= PSP_OPEN_CREATE;
  psp_file *file = make_handle(name, flags, mode);
  if (file == nullptr) return nullptr;
  if (!open_side(file)) {
    os::LastErrorKeeper keeper;
    psp_freeMem(file, state.tag);
    return nullptr;
  }
  file->flags &= ~(PSP_OPEN_CREATE | PSP_OPEN_TRUNCATE);
  return file;
}

os::Error create_replacement(psp_file *file, const char *replaced) {
  if (core::no_disk() || core::read_only()) return refuse(os::Refusal::kAccessDenied);
  return os::file_create_replacement(file->name(), replaced, &file->disk);
}

void close_file(psp_file *file) {
  if (file->stored != nullptr) {
    memstore::mfile_close(file->stored);
  } else if (os::file_has_handle(file->disk)) {
    if (!file->is_standard_channel) os::file_close(&file->disk);
  } else if (strcmp(file->name(), "stdout") != 0) {
    // A program without a console has no standard output, and nothing is wrong with that.
    psp_log("Inconsistent file state %s\n", file->name());
  }
  psp_freeMem(file, state.tag);
}

// ---- Transfers ----------------------------------------------------------------------------------

// A null buffer is refused here and not left to the platform, which does not look at it where there
// is nothing to transfer.
bool is_transfer(const psp_file *file, const void *buffer) {
  if (file != nullptr && buffer != nullptr) return true;
  refuse(os::Refusal::kInvalidArgument);
  return false;
}

// A transfer of the store. A count that the result could not hold is moved in part.
template <class Transfer>
int32_t move_stored(uint32_t count, Transfer &&transfer) {
  count = std::min(count, kTransferMaxBytes);
  return core::exported_call([&] { return static_cast<int32_t>(transfer(count)); });
}

int32_t log_failed_place(const char *operation) {
  psp_log("Failed to seek and %s, errno = %d\n", operation, static_cast<int32_t>(os::last_error()));
  return kTransferFailed;
}

int32_t read_at(psp_file *file, int64_t offset, void *buffer, uint32_t count) {
  for (;;) {
    uint32_t done = 0;
    const os::Error error = os::file_read_at(&file->disk, offset, buffer, count, &done);
    if (error == 0) return static_cast<int32_t>(done);
    switch (os::file_condition(error)) {
      case os::Condition::kEndOfFile:
        return 0;
      case os::Condition::kLockViolation:
      case os::Condition::kTransient:
      case os::Condition::kShortOfMemory:
        continue;
      default:
        return log_failed_place("read");
    }
  }
}

// Whether a failed write of count bytes may succeed in halves. A single byte has none.
bool halves_may_succeed(os::Error error, uint32_t count) {
  const os::Condition condition = os::file_condition(error);
  return count > 1 && (condition == os::Condition::kTooLargeForSystem ||
                       condition == os::Condition::kShortOfMemory);
}

// Returns the bytes written, or kTransferFailed. A first half that was cut short is not followed by
// the second, which would leave a gap that the sum does not tell.
int32_t write_at(psp_file *file, int64_t offset, const char *bytes, uint32_t count) {
  os::set_last_error(0);
  uint32_t done = 0;
  const os::Error error = os::file_write_at(&file->disk, offset, bytes, count, &done);
  if (error == 0) return static_cast<int32_t>(done);
  if (!halves_may_succeed(error, count)) return kTransferFailed;
  const uint32_t half = count >> 1;
  const int32_t first = write_at(file, offset, bytes, half);
  if (first != static_cast<int32_t>(half)) return first;
  const int32_t second = write_at(file, offset + half, bytes + half, count - half);
  return second == kTransferFailed ? kTransferFailed : first + second;
}

// ---- Size ---------------------------------------------------------------------------------------

int32_t append_zeros(psp_file *file, int64_t bytes) {
  if (os::file_seek(&file->disk, 0, os::Origin::kEnd) != 0) return kSetSizeFailed;
  while (bytes > 0) {
    const auto piece = static_cast<uint32_t>(std::min<int64_t>(bytes, kGrowthBytes));
    uint32_t done = 0;
    if (os::file_write(&file->disk, kZeros, piece, &done) != 0 || done != piece) {
      return kSetSizeFailed;
    }
    bytes -= piece;
  }
  return 0;
}

int32_t set_size(psp_file *file, int64_t size) {
  int64_t current = 0;
  if (os::file_size(file->disk, &current) != 0) return kSetSizeFailed;
  if (size > current) return append_zeros(file, size - current);
  // A cut that fails is told by the last error alone, as a failed sync is.
  if (size < current) os::file_cut(&file->disk, size);
  return 0;
}

}  // namespace

PSP_FH open_replacement(const char *name, const char *replaced, uint16_t mode) {
  if ((mode & PSP_FILE_MEMORY) != 0) {
    return open_file(name, PSP_OPEN_WRITE | PSP_OPEN_TRUNCATE, mode);
  }
  if (!core::started()) {
    refuse(os::Refusal::kInvalidArgument);
    return nullptr;
  }
  psp_file *file = make_handle(name, PSP_OPEN_WRITE, mode);
  if (file == nullptr || create_replacement(file, replaced) == 0) return file;
  os::LastErrorKeeper keeper;
  psp_freeMem(file, state.tag);
  return nullptr;
}

}  // namespace psp::files

using namespace psp::files;
namespace core = psp::core;
namespace memstore = psp::memstore;
namespace os = psp::os;

psp_status core::files_start() {
  psp_tag *tag = psp_createTagEx(nullptr, PSP_TAG_THREADSAFE, kSource, __LINE__);
  if (tag == PSP_TAG_FAILED) return PSP_FAILED;
  state.tag = tag;
  return PSP_OKAY;
}

void core::files_stop() {
  psp_freeTagMemory(state.tag, 1);
  state.tag = nullptr;
}

PSP_FH psp_fileOpen(const char *name, uint32_t flags, uint16_t mode) {
  return core::exported_call([&] { return open_file(name, flags, mode); });
}

PSP_FH psp_fileOpenW(const psp_wchar *name, uint32_t flags, uint16_t mode) {
  return core::exported_call([&] {
    return with_narrow(name, PSP_FH{nullptr},
                       [&](const char *narrow) { return open_file(narrow, flags, mode); });
  });
}

void psp_fileClose(PSP_FH file) {
  if (file == nullptr) return;
  core::exported_call([&] { close_file(file); });
}

psp_status psp_fileSeek(PSP_FH file, int64_t offset, int32_t whence) {
  if (!is_handle(file)) return PSP_FAILED;
  if (file->stored != nullptr) return memstore::mfile_seek(file->stored, offset, whence);
  os::Origin origin = os::Origin::kStart;
  if (whence == PSP_SEEK_CURRENT) {
    origin = os::Origin::kCurrent;
  } else if (whence == PSP_SEEK_END) {
    origin = os::Origin::kEnd;
  } else if (whence != PSP_SEEK_START) {
    psp_log("Invalid seek method, seeking from beginning\n");
  }
  return os::file_seek(&file->disk, offset, origin) == 0 ? PSP_OKAY : PSP_FAILED;
}

int32_t psp_fileRead(PSP_FH file, void *buffer, uint32_t count) {
  if (count == 0) return 0;
  if (!is_transfer(file, buffer)) return kTransferFailed;
  if (file->stored != nullptr) {
    return move_stored(
        count, [&](uint32_t bytes) { return memstore::mfile_read(file->stored, buffer, bytes); });
  }
  uint32_t done = 0;
  if (os::file_read(&file->disk, buffer, std::min(count, kTransferMaxBytes), &done) != 0) {
    psp_log("Read failed, errno = %d\n", static_cast<int32_t>(os::last_error()));
    return kTransferFailed;
  }
  return static_cast<int32_t>(done);
}

int32_t psp_fileWrite(PSP_FH file, const void *buffer, uint32_t count) {
  if (count == 0) return 0;
  if (!is_transfer(file, buffer)) return kTransferFailed;
  if (file->stored != nullptr) {
    return move_stored(
        count, [&](uint32_t bytes) { return memstore::mfile_write(file->stored, buffer, bytes); });
  }
  if (core::read_only()) return 0;
  uint32_t done = 0;
  const os::Error error = count > kTransferMaxBytes
                              ? refuse(os::Refusal::kInvalidArgument)
                              : os::file_write(&file->disk, buffer, count, &done);
  if (error == 0) return static_cast<int32_t>(done);
  // Not through the log, which writes its own files through this very function.
  os::LastErrorKeeper keeper;
  fprintf(stderr, "Write failed, errno = %d\n", static_cast<int>(error));
  return kTransferFailed;
}

int32_t psp_fileSeekRead(PSP_FH file, int64_t offset, void *buffer, uint32_t count) {
  if (count == 0) return 0;
  if (!is_transfer(file, buffer)) return kTransferFailed;
  if (file->stored != nullptr) {
    return move_stored(count, [&](uint32_t bytes) {
      return memstore::mfile_seek_read(file->stored, static_cast<uint64_t>(offset), buffer, bytes);
    });
  }
  return read_at(file, offset, buffer, std::min(count, kTransferMaxBytes));
}

int32_t psp_fileSeekWrite(PSP_FH file, int64_t offset, const void *buffer, uint32_t count) {
  if (count == 0) return 0;
  if (!is_transfer(file, buffer)) return kTransferFailed;
  if (file->stored != nullptr) {
    return move_stored(count, [&](uint32_t bytes) {
      return memstore::mfile_seek_write(file->stored, static_cast<uint64_t>(offset), buffer, bytes);
    });
  }
  if (core::read_only()) return 0;
  if (count > kTransferMaxBytes) {
    refuse(os::Refusal::kInvalidArgument);
    return log_failed_place("write");
  }
  const int32_t written = write_at(file, offset, static_cast<const char *>(buffer), count);
  return written == kTransferFailed ? log_failed_place("write") : written;
}

int64_t psp_fileLength(PSP_FH file) {
  int64_t size = 0;
  if (!is_handle(file)) return 0;
  if (file->stored != nullptr) return static_cast<int64_t>(memstore::mfile_length(file->stored));
  return os::file_size(file->disk, &size) == 0 ? size : 0;
}

int64_t psp_fileLengthStat(const char *name, uint16_t mode) {
  os::FileStatus status;
  if (name == nullptr) return kUnknown;
  if ((mode & PSP_FILE_MEMORY) != 0) {
    return core::exported_call([&] { return memstore::mfile_length_stat(name); });
  }
  return os::file_status(name, &status) == 0 ? status.size : kUnknown;
}

int32_t psp_fileSetSize(PSP_FH file, int64_t size) {
  if (!is_handle(file)) return kSetSizeFailed;
  if (file->stored != nullptr) {
    return core::exported_call(
        [&] { return memstore::mfile_set_size(file->stored, static_cast<uint64_t>(size)); });
  }
  if (size < 0 || core::read_only()) {
    refuse(size < 0 ? os::Refusal::kInvalidArgument : os::Refusal::kAccessDenied);
    return kSetSizeFailed;
  }
  return set_size(file, size);
}

psp_status psp_fileLock(PSP_FH file) {
  if (!is_handle(file)) return PSP_FAILED;
  if (file->stored != nullptr) {
    memstore::mfile_lock(file->stored);
    return PSP_OKAY;
  }
  return os::file_lock_first_byte(&file->disk) == 0 ? PSP_OKAY : PSP_FAILED;
}

psp_status psp_fileUnlock(PSP_FH file) {
  if (!is_handle(file)) return PSP_FAILED;
  if (file->stored != nullptr) {
    memstore::mfile_unlock(file->stored);
    return PSP_OKAY;
  }
  return os::file_unlock_first_byte(&file->disk) == 0 ? PSP_OKAY : PSP_FAILED;
}

psp_status psp_fileSync(PSP_FH file) {
  if (file == nullptr || (file->mode & (PSP_FILE_MEMORY | PSP_FILE_NOSYNC)) != 0) return PSP_OKAY;
  if (!core::read_only()) os::file_sync(&file->disk);
  return PSP_OKAY;
}

int64_t psp_fileModTimeStat(const char *name, uint16_t mode) {
  os::FileStatus status;
  if (name == nullptr) return kUnknown;
  if ((mode & PSP_FILE_MEMORY) != 0) {
    return core::exported_call([&] { return memstore::mfile_modification_time_stat(name); });
  }
  if (core::no_disk()) return kUnknown;
  return os::file_status(name, &status) == 0 ? status.modified_seconds : kUnknown;
}
