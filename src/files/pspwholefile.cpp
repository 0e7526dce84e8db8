// Module pspwholefile: files and directories as a whole, by name.
//
// The mode word beside each name decides whether the disk or the store is asked, name by name, so
// that a copy or a move may cross. Copy and compare run on file handles; the rest asks the platform
// (os.h) or the store, and here stands what the library makes of it: the process-wide modes, which
// names are the same, and in which order a move goes about it.
//
// Owns nothing and takes no lock. On the disk removing, renaming and the existence test allocate
// nothing.

#include <cstring>

#include "core/exported_call.h"
#include "core/lifecycle.h"
#include "files/files.h"
#include "memstore/pspmfile.h"
#include "os/os.h"
#include "psp.h"
#include "text/ascii.h"

namespace psp::files {
namespace {

constexpr char kSource[] = "pspwholefile.cpp";
constexpr uint32_t kBlockBytes = 1024;
constexpr psp_status kSetSizeFailed = -1;
constexpr uint32_t kDiskDirectoryFlag = 0x4000;
constexpr char kSeparator = '\\';

bool in_store(uint16_t mode) { return (mode & PSP_FILE_MEMORY) != 0; }

bool are_names(const char *first, const char *second) {
  if (first != nullptr && second != nullptr) return true;
  refuse(os::Refusal::kInvalidArgument);
  return false;
}

bool may_change_disk() {
  if (!core::no_disk() && !core::read_only()) return true;
  refuse(os::Refusal::kAccessDenied);
  return false;
}

// ---- Names that are the same --------------------------------------------------------------------

char fold(char c) { return c == '/' ? kSeparator : text::to_lower(c); }

bool store_names_are_equal(const char *first, const char *second) {
  for (; fold(*first) == fold(*second); ++first, ++second) {
    if (*first == '\0') return true;
  }
  return false;
}

// A name of the disk and one of the store are never the same.
bool names_are_equal(const char *first, uint16_t first_mode, const char *second,
                     uint16_t second_mode) {
  if (in_store(first_mode) != in_store(second_mode)) return false;
  return in_store(first_mode) ? store_names_are_equal(first, second)
                              : os::names_are_equal(first, second);
}

// Whether a move has nothing to do. Names that are spelled differently may lead to the same file:
// it must not be removed to make room for itself. False when that cannot be told.
[[nodiscard]] bool find_moved(const char *source, uint16_t source_mode, const char *destination,
                              uint16_t destination_mode, bool *is_moved) {
  *is_moved = names_are_equal(source, source_mode, destination, destination_mode);
  if (*is_moved || in_store(source_mode) != in_store(destination_mode)) return true;
  if (in_store(source_mode)) return memstore::mfile_is_same(source, destination, is_moved);
  return core::no_disk() || os::names_lead_to_same_file(source, destination, is_moved) == 0;
}

// Whether a rename would leave the file where the move is to bring it: one of the store looks at
// the new name's last component only.
bool may_be_renamed(const char *source, uint16_t source_mode, const char *destination) {
  if (!in_store(source_mode)) return true;
  const size_t bytes = directory_bytes(source);
  if (bytes != directory_bytes(destination)) return false;
  for (size_t index = 0; index < bytes; ++index) {
    if (fold(source[index]) != fold(destination[index])) return false;
  }
  return true;
}

// ---- By name ------------------------------------------------------------------------------------

psp_status remove_file(const char *name, uint16_t mode) {
  if (!are_names(name, name)) return PSP_FAILED;
  if (in_store(mode)) return memstore::mfile_remove(name);
  return may_change_disk() && os::file_remove(name) == 0 ? PSP_OKAY : PSP_FAILED;
}

psp_status rename_file(const char *old_name, uint16_t old_mode, const char *new_name,
                       uint16_t new_mode) {
  if (!are_names(old_name, new_name)) return PSP_FAILED;
  if (in_store(old_mode) != in_store(new_mode)) {
    refuse(os::Refusal::kInvalidArgument);
    return PSP_FAILED;
  }
  if (in_store(old_mode)) return memstore::mfile_rename(old_name, new_name);
  return may_change_disk() && os::file_rename(old_name, new_name) == 0 ? PSP_OKAY : PSP_FAILED;
}

int32_t file_exists(const char *name, uint16_t mode, uint32_t *directory) {
  if (!are_names(name, name)) return 0;
  if (in_store(mode)) return memstore::mfile_validate(name, directory);
  os::FileStatus status;
  if (core::no_disk() || os::file_status(name, &status) != 0) return 0;
  if (directory != nullptr) *directory = status.is_directory ? kDiskDirectoryFlag : 0;
  return 1;
}

// ---- Two files, block by block ------------------------------------------------------------------

// An open file with a block of it. What it holds is given back without a change of the last error,
// which tells of the failure before.
class BlockFile {
 public:
  BlockFile() = default;
  BlockFile(const BlockFile &) = delete;
  BlockFile &operator=(const BlockFile &) = delete;
  ~BlockFile() {
    os::LastErrorKeeper keeper;
    psp_fileClose(file_);
    psp_freeMem(block_, nullptr);
  }

  bool open(const char *name, uint32_t flags, uint16_t mode) {
    file_ = psp_fileOpen(name, flags, mode);
    return file_ != nullptr;
  }
  bool take_block() {
    void *memory = psp_getMem(kBlockBytes, nullptr, PSP_MEM_ALLOC, nullptr, kSource, __LINE__);
    block_ = static_cast<char *>(memory);
    return block_ != nullptr;
  }

  // Both give the bytes moved or -1, which has been logged.
  int32_t read(int64_t offset, uint32_t count) {
    return psp_fileSeekRead(file_, offset, block_, count);
  }
  int32_t write(int64_t offset, const BlockFile &from, uint32_t count) {
    return psp_fileSeekWrite(file_, offset, from.block_, count);
  }
  bool block_equals(const BlockFile &other, int32_t count) const {
    return psp_memCmp(block_, other.block_, static_cast<size_t>(count)) == 0;
  }

  // False for what has no length. A pipe must not pass for an empty file: the copy would empty the
  // destination and call that a success.
  bool length(int64_t *bytes) const {
    os::set_last_error(0);
    *bytes = psp_fileLength(file_);
    return *bytes != 0 || os::last_error() == 0;
  }

  // A cut that failed is told by the length alone, which is looked at for that reason.
  psp_status set_length(int64_t bytes) {
    const psp_status status = psp_fileSetSize(file_, bytes);
    int64_t now = 0;
    if (status != 0) return status;
    return length(&now) && now == bytes ? PSP_OKAY : kSetSizeFailed;
  }

 private:
  PSP_FH file_ = nullptr;
  char *block_ = nullptr;
};

// Whether the destination has count bytes at the offset that equal the source's block.
bool has_same_block(BlockFile *destination, const BlockFile &source, int64_t offset,
                    int32_t count) {
  return destination->read(offset, static_cast<uint32_t>(count)) == count &&
         destination->block_equals(source, count);
}

// Writes only the blocks that differ.
psp_status copy_blocks(BlockFile *source, BlockFile *destination) {
  int64_t source_bytes = 0;
  int64_t destination_bytes = 0;
  if (!source->length(&source_bytes) || !destination->length(&destination_bytes)) {
    return PSP_FAILED;
  }
  for (int64_t offset = 0; offset < source_bytes;) {
    const int32_t count = source->read(offset, kBlockBytes);
    if (count <= 0) return PSP_FAILED;  // 0: somebody cut the source meanwhile
    const bool reaches = offset + count <= destination_bytes;
    if (!reaches || !has_same_block(destination, *source, offset, count)) {
      const int32_t written = destination->write(offset, *source, static_cast<uint32_t>(count));
      if (written != count) return PSP_FAILED;
    }
    offset += count;
  }
  return source_bytes == destination_bytes ? PSP_OKAY : destination->set_length(source_bytes);
}

psp_status copy_file(const char *source_name, uint16_t source_mode, const char *destination_name,
                     uint16_t destination_mode) {
  if (!are_names(source_name, destination_name)) return PSP_FAILED;
  // On the disk the copy of a file onto itself runs, and finds nothing to write.
  if (in_store(source_mode) &&
      names_are_equal(source_name, source_mode, destination_name, destination_mode)) {
    return PSP_OKAY;
  }
  BlockFile source;
  BlockFile destination;
  // The destination comes last: no other failure leaves a new, empty one.
  if (!source.open(source_name, PSP_OPEN_READ, source_mode) || !source.take_block() ||
      !destination.take_block() ||
      !destination.open(destination_name, PSP_OPEN_READWRITE | PSP_OPEN_CREATE, destination_mode)) {
    return PSP_FAILED;
  }
  return copy_blocks(&source, &destination);
}

psp_status compare_blocks(BlockFile *first, BlockFile *second) {
  for (int64_t offset = 0;;) {
    const int32_t count = first->read(offset, kBlockBytes);
    if (count < 0) return PSP_FAILED;
    if (count == 0) return second->read(offset, 1) == 0 ? PSP_OKAY : PSP_FAILED;
    if (second->read(offset, static_cast<uint32_t>(count)) != count) return PSP_FAILED;
    if (!first->block_equals(*second, count)) return PSP_FAILED;
    offset += count;
  }
}

psp_status compare_files(const char *first_name, uint16_t first_mode, const char *second_name,
                         uint16_t second_mode) {
  if (first_name != nullptr && second_name != nullptr &&
      names_are_equal(first_name, first_mode, second_name, second_mode)) {
    return PSP_OKAY;
  }
  BlockFile first;
  BlockFile second;
  if (!first.open(first_name, PSP_OPEN_READ, first_mode)) return PSP_CMP_NO_FIRST;
  if (!second.open(second_name, PSP_OPEN_READ, second_mode)) return PSP_CMP_NO_SECOND;
  if (!first.take_block() || !second.take_block()) return PSP_NOMEMORY;
  return compare_blocks(&first, &second);
}

// ---- Moves --------------------------------------------------------------------------------------

bool is_renamed(const char *source, uint16_t source_mode, const char *destination,
                uint16_t destination_mode) {
  return may_be_renamed(source, source_mode, destination) &&
         rename_file(source, source_mode, destination, destination_mode) == PSP_OKAY;
}

// Whether a copy can stand for the file: the open of a pipe would wait for its other end.
bool has_content(const char *name, uint16_t mode) {
  os::FileStatus status;
  if (in_store(mode) || core::no_disk()) return true;
  if (os::file_status(name, &status) != 0) return false;
  if (!status.is_regular) refuse(os::Refusal::kInvalidArgument);
  return status.is_regular;
}

psp_status move_file(const char *source, uint16_t source_mode, const char *destination,
                     uint16_t destination_mode) {
  if (!are_names(source, destination)) return PSP_FAILED;
  source_mode &= PSP_FILE_MEMORY;
  destination_mode &= PSP_FILE_MEMORY;
  bool is_moved = false;
  if (!find_moved(source, source_mode, destination, destination_mode, &is_moved)) return PSP_FAILED;
  if (is_moved) return PSP_OKAY;
  remove_file(destination, destination_mode);
  if (is_renamed(source, source_mode, destination, destination_mode)) return PSP_OKAY;
  if (!has_content(source, source_mode)) return PSP_FAILED;
  const psp_status status = copy_file(source, source_mode, destination, destination_mode);
  if (status != PSP_OKAY) return status;
  remove_file(source, source_mode);
  return PSP_OKAY;
}

char *make_path(const char *directory, const char *name) {
  return psp_makeStrVA(kSource, __LINE__, nullptr, "%s%c%s", directory, kSeparator, name);
}

psp_status move_entry(const char *name, const char *source, uint16_t source_mode,
                      const char *destination, uint16_t destination_mode) {
  psp_status status = PSP_NOMEMORY;
  char *from = make_path(source, name);
  char *to = from == nullptr ? nullptr : make_path(destination, name);
  if (to != nullptr) status = move_file(from, source_mode, to, destination_mode);
  os::LastErrorKeeper keeper;
  psp_freeMem(to, nullptr);
  psp_freeMem(from, nullptr);
  return status;
}

// The next entry that is no directory. Null at the end, and with *status when the directory cannot
// be read on, which an iteration tells by the last error alone.
const char *next_file(psp_pathIter *entries, psp_status *status) {
  os::set_last_error(0);
  uint32_t is_directory = 0;
  for (;;) {
    const char *name = psp_pathNext(entries, &is_directory);
    if (name == nullptr) *status = os::last_error() == 0 ? PSP_OKAY : PSP_FAILED;
    if (name == nullptr || is_directory == 0) return name;
  }
}

psp_status move_entries(psp_pathIter *entries, const char *source, uint16_t source_mode,
                        const char *destination, uint16_t destination_mode) {
  psp_status status = PSP_OKAY;
  while (status == PSP_OKAY) {
    const char *name = next_file(entries, &status);
    if (name == nullptr) break;
    status = move_entry(name, source, source_mode, destination, destination_mode);
  }
  return status;
}

// A store destination comes into being with its first file. On the disk somebody may be faster, or
// the name end in a separator, which is told like that.
psp_status provide_directory(const char *name, uint16_t mode) {
  if (in_store(mode) || file_exists(name, mode, nullptr) != 0) return PSP_OKAY;
  const psp_status status = psp_dirCreateAll(name);
  return status == PSP_EXISTS ? PSP_OKAY : status;
}

// The files of a directory that could not be renamed. What cannot be iterated is not moved, and no
// destination is made for it.
psp_status move_files(const char *source, uint16_t source_mode, const char *destination,
                      uint16_t destination_mode) {
  if (!in_store(destination_mode) && !may_change_disk()) return PSP_FAILED;
  psp_pathIter *entries = psp_pathOpenEx(source, source_mode, "*");
  if (entries == nullptr) return PSP_FAILED;
  psp_status status = provide_directory(destination, destination_mode);
  const bool is_provided = status == PSP_OKAY;
  if (is_provided) {
    status = move_entries(entries, source, source_mode, destination, destination_mode);
  }
  os::LastErrorKeeper keeper;
  psp_pathClose(entries);
  // Fails, as it should, while anything is left.
  if (is_provided && !in_store(source_mode) && may_change_disk()) psp_dirRemove(source);
  return status;
}

psp_status move_directory(const char *source, uint16_t source_mode, const char *destination,
                          uint16_t destination_mode) {
  if (!are_names(source, destination)) return PSP_FAILED;
  source_mode &= PSP_FILE_MEMORY;
  destination_mode &= PSP_FILE_MEMORY;
  bool is_moved = false;
  if (!find_moved(source, source_mode, destination, destination_mode, &is_moved)) return PSP_FAILED;
  if (is_moved) return PSP_OKAY;
  if (is_renamed(source, source_mode, destination, destination_mode)) return PSP_OKAY;
  return move_files(source, source_mode, destination, destination_mode);
}

// ---- Wide names ---------------------------------------------------------------------------------

using PairOperation = psp_status (*)(const char *first, uint16_t first_mode, const char *second,
                                     uint16_t second_mode);

psp_status call_pair(PairOperation operation, const char *first, uint16_t first_mode,
                     const char *second, uint16_t second_mode) {
  return core::exported_call([&] { return operation(first, first_mode, second, second_mode); });
}

psp_status call_wide_pair(PairOperation operation, psp_status failure, const psp_wchar *first,
                          uint16_t first_mode, const psp_wchar *second, uint16_t second_mode) {
  return core::exported_call([&] {
    return with_narrow(first, failure, [&](const char *narrow_first) {
      return with_narrow(second, failure, [&](const char *narrow_second) {
        return operation(narrow_first, first_mode, narrow_second, second_mode);
      });
    });
  });
}

}  // namespace

psp_status replace_file(const char *replacement, const char *name, uint16_t mode) {
  if (!are_names(replacement, name)) return PSP_FAILED;
  if (in_store(mode)) return memstore::mfile_replace(replacement, name);
  return may_change_disk() && os::file_replace(replacement, name) == 0 ? PSP_OKAY : PSP_FAILED;
}

}  // namespace psp::files

using namespace psp::files;
namespace core = psp::core;

// ---- Copy and compare ---------------------------------------------------------------------------

psp_status psp_fileCopyEx(const char *source, uint16_t source_mode, const char *destination,
                          uint16_t destination_mode) {
  return call_pair(copy_file, source, source_mode, destination, destination_mode);
}

psp_status psp_fileCopy(const char *source, const char *destination) {
  return psp_fileCopyEx(source, 0, destination, 0);
}

psp_status psp_fileCopyExW(const psp_wchar *source, uint16_t source_mode,
                           const psp_wchar *destination, uint16_t destination_mode) {
  return call_wide_pair(copy_file, PSP_FAILED, source, source_mode, destination, destination_mode);
}

psp_status psp_fileCopyW(const psp_wchar *source, const psp_wchar *destination) {
  return psp_fileCopyExW(source, 0, destination, 0);
}

psp_status psp_fileCmpEx(const char *first, uint16_t first_mode, const char *second,
                         uint16_t second_mode) {
  return call_pair(compare_files, first, first_mode, second, second_mode);
}

psp_status psp_fileCmp(const char *first, const char *second) {
  return psp_fileCmpEx(first, 0, second, 0);
}

psp_status psp_fileCmpExW(const psp_wchar *first, uint16_t first_mode, const psp_wchar *second,
                          uint16_t second_mode) {
  return call_wide_pair(compare_files, PSP_FAILED, first, first_mode, second, second_mode);
}

psp_status psp_fileCmpW(const psp_wchar *first, const psp_wchar *second) {
  return psp_fileCmpExW(first, 0, second, 0);
}

// ---- Remove, rename, existence test -------------------------------------------------------------

psp_status psp_fileRemoveEx(const char *name, uint16_t mode) {
  return core::exported_call([&] { return remove_file(name, mode); });
}

psp_status psp_fileRemove(const char *name) { return psp_fileRemoveEx(name, 0); }

psp_status psp_fileRemoveExW(const psp_wchar *name, uint16_t mode) {
  return core::exported_call([&] {
    return with_narrow(name, PSP_NOMEMORY,
                       [&](const char *narrow) { return remove_file(narrow, mode); });
  });
}

psp_status psp_fileRemoveW(const psp_wchar *name) { return psp_fileRemoveExW(name, 0); }

psp_status psp_fileRenameEx(const char *old_name, uint16_t old_mode, const char *new_name,
                            uint16_t new_mode) {
  return call_pair(rename_file, old_name, old_mode, new_name, new_mode);
}

psp_status psp_fileRename(const char *old_name, const char *new_name) {
  return psp_fileRenameEx(old_name, 0, new_name, 0);
}

psp_status psp_fileRenameExW(const psp_wchar *old_name, uint16_t old_mode,
                             const psp_wchar *new_name, uint16_t new_mode) {
  return call_wide_pair(rename_file, PSP_NOMEMORY, old_name, old_mode, new_name, new_mode);
}

psp_status psp_fileRenameW(const psp_wchar *old_name, const psp_wchar *new_name) {
  return psp_fileRenameExW(old_name, 0, new_name, 0);
}

int32_t psp_fileValidateEx(const char *name, uint16_t mode, uint32_t *directory) {
  return core::exported_call([&] { return file_exists(name, mode, directory); });
}

int32_t psp_fileValidate(const char *name) { return psp_fileValidateEx(name, 0, nullptr); }

int32_t psp_fileValidateExW(const psp_wchar *name, uint16_t mode, uint32_t *directory) {
  return core::exported_call([&] {
    return with_narrow(name, 0,
                       [&](const char *narrow) { return file_exists(narrow, mode, directory); });
  });
}

int32_t psp_fileValidateW(const psp_wchar *name) { return psp_fileValidateExW(name, 0, nullptr); }

// ---- Moves --------------------------------------------------------------------------------------

psp_status psp_fileMoveEx(const char *source, uint16_t source_mode, const char *destination,
                          uint16_t destination_mode) {
  return call_pair(move_file, source, source_mode, destination, destination_mode);
}

psp_status psp_fileMove(const char *source, const char *destination) {
  return psp_fileMoveEx(source, 0, destination, 0);
}

psp_status psp_fileMoveExW(const psp_wchar *source, uint16_t source_mode,
                           const psp_wchar *destination, uint16_t destination_mode) {
  return call_wide_pair(move_file, PSP_FAILED, source, source_mode, destination, destination_mode);
}

psp_status psp_fileMoveW(const psp_wchar *source, const psp_wchar *destination) {
  return psp_fileMoveExW(source, 0, destination, 0);
}

psp_status psp_dirMoveEx(const char *source, uint16_t source_mode, const char *destination,
                         uint16_t destination_mode) {
  return call_pair(move_directory, source, source_mode, destination, destination_mode);
}

psp_status psp_dirMove(const char *source, const char *destination) {
  return psp_dirMoveEx(source, 0, destination, 0);
}

psp_status psp_dirMoveExW(const psp_wchar *source, uint16_t source_mode,
                          const psp_wchar *destination, uint16_t destination_mode) {
  return call_wide_pair(move_directory, PSP_FAILED, source, source_mode, destination,
                        destination_mode);
}

psp_status psp_dirMoveW(const psp_wchar *source, const psp_wchar *destination) {
  return psp_dirMoveExW(source, 0, destination, 0);
}
