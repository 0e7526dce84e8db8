// Module pspmfile: the files of the in-memory file store, by handle and by name.
//
// Owns the handles, in the default tag. Locks: the directory's for the moment of a look-up or a
// change of names, the file's for a transfer. A file is attached, or deleted, while the directory
// that names it is locked: an open and a removal happen one after the other, whole.
#include "memstore/pspmfile.h"

#include <new>

#include "core/exported_call.h"
#include "core/modules.h"
#include "files/files.h"
#include "memstore/store_names.h"
#include "os/os.h"

namespace psp::memstore {

struct StoreFile {
  SegmentedFile contents;
  uint64_t position = 0;
  uint32_t lock_turn = 0;    // see SegmentedFile::take_turn
  uint32_t lock_levels = 0;  // taken through this handle in that turn
};

namespace {

constexpr char kSource[] = "pspmfile.cpp";

StoreFile *make_handle() {
  void *memory = psp_getMem(sizeof(StoreFile), nullptr, PSP_MEM_ALLOC, nullptr, kSource, __LINE__);
  return memory != nullptr ? new (memory) StoreFile : nullptr;
}

void free_handle(StoreFile *file) {
  const os::LastErrorKeeper keeper;
  psp_freeMem(file, nullptr);
}

// Opens the contents of the file that the path names.
bool open_contents(const char *path, bool creates, SegmentedFile *contents) {
  Entry entry;
  if (!entry.enter(path)) return false;
  psp_status status = entry.find_file(entry.name());
  if (status == PSP_NOTFOUND && creates) status = entry.create_file();
  return status == PSP_OKAY && contents->open(entry.heap(), 0);
}

// Asks the file that the path names; 0 for what is no file.
int64_t query(const char *path, int64_t (*ask)(HeapId)) {
  const core::PutOffReports put_off;
  Entry entry;
  if (!entry.enter(path) || entry.find_file(entry.name()) != PSP_OKAY) return 0;
  return ask(entry.heap());
}

bool leads_to_directory(const char *path) {
  OwnText directory;
  Walk walk;
  return directory.take_path(psp_pathStripDrive(path)) && normalise(directory.text()) &&
         walk.open(directory.text(), false);
}

}  // namespace

// ---- Files by handle ----------------------------------------------------------------------------

StoreFile *mfile_open(const char *path, uint32_t flags) {
  const core::PutOffReports put_off;
  StoreFile *file = make_handle();
  if (file == nullptr) return nullptr;
  if (!open_contents(path, (flags & PSP_OPEN_CREATE) != 0, &file->contents)) {
    free_handle(file);
    return nullptr;
  }
  // Behind the directory's lock: a long cut need not hold up the whole folder. It cannot fail where
  // there is anything to cut.
  if ((flags & PSP_OPEN_TRUNCATE) != 0) file->contents.set_size(0);
  return file;
}

void mfile_close(StoreFile *file) {
  while (file->lock_levels != 0 && file->contents.has_turn(file->lock_turn)) mfile_unlock(file);
  file->contents.close();
  free_handle(file);
}

psp_status mfile_seek(StoreFile *file, int64_t offset, int32_t whence) {
  const uint64_t length = file->contents.length();
  uint64_t target = static_cast<uint64_t>(offset);
  if (whence == PSP_SEEK_CURRENT) target += file->position;
  if (whence == PSP_SEEK_END) target += length;
  const bool is_known = whence >= PSP_SEEK_START && whence <= PSP_SEEK_END;
  if (!is_known || target > length) {
    files::refuse(os::Refusal::kInvalidArgument);
    return PSP_FAILED;
  }
  file->position = target;
  return PSP_OKAY;
}

uint32_t mfile_read(StoreFile *file, void *buffer, uint32_t count) {
  const uint32_t done = mfile_seek_read(file, file->position, buffer, count);
  file->position += done;
  return done;
}

uint32_t mfile_write(StoreFile *file, const void *buffer, uint32_t count) {
  const uint32_t done = mfile_seek_write(file, file->position, buffer, count);
  file->position += done;
  return done;
}

uint32_t mfile_seek_read(StoreFile *file, uint64_t offset, void *buffer, uint32_t count) {
  const core::PutOffReports put_off;
  return file->contents.read(offset, buffer, count);
}

uint32_t mfile_seek_write(StoreFile *file, uint64_t offset, const void *buffer, uint32_t count) {
  const core::PutOffReports put_off;
  return file->contents.write(offset, buffer, count);
}

// Levels of an earlier turn went with the thread that had it.
void mfile_lock(StoreFile *file) {
  const uint32_t turn = file->contents.take_turn();
  if (turn != file->lock_turn) file->lock_levels = 0;
  file->lock_turn = turn;
  ++file->lock_levels;
}

void mfile_unlock(StoreFile *file) {
  if (!file->contents.has_turn(file->lock_turn) || file->lock_levels == 0) return;
  --file->lock_levels;
  file->contents.unlock();
}

uint64_t mfile_length(const StoreFile *file) { return file->contents.length(); }

psp_status mfile_set_size(StoreFile *file, uint64_t bytes) {
  const core::PutOffReports put_off;
  return file->contents.set_size(bytes);
}

// ---- By name ------------------------------------------------------------------------------------

int64_t mfile_length_stat(const char *path) { return query(path, segfile_length_of); }

int64_t mfile_modification_time_stat(const char *path) { return query(path, segfile_modified_of); }

psp_status mfile_remove(const char *path) {
  const core::PutOffReports put_off;
  Entry entry;
  if (!entry.enter(path)) return PSP_FAILED;
  const psp_status status = entry.find_file(entry.name());
  if (status != PSP_OKAY) return status;
  entry.remove();
  shmcache_delete(entry.heap());
  return PSP_OKAY;
}

psp_status mfile_rename(const char *old_path, const char *new_path) {
  const core::PutOffReports put_off;
  const std::string_view new_name = last_component(new_path);
  Entry entry;
  if (!entry.enter(old_path)) return PSP_FAILED;
  const psp_status status = entry.find(entry.name());
  if (status != PSP_OKAY) return status;
  const HeapId heap = entry.heap();
  const EntryType type = entry.type();
  if (entry.find(new_name) != PSP_NOTFOUND) {
    files::refuse(os::Refusal::kAccessDenied);
    return PSP_FAILED;
  }
  if (entry.insert(new_name, heap, type) != PSP_OKAY) return PSP_FAILED;
  // From here on nothing can fail.
  entry.find(entry.name());
  entry.remove();
  return PSP_OKAY;
}

psp_status mfile_replace(const char *replacement, const char *path) {
  const core::PutOffReports put_off;
  const std::string_view new_contents = last_component(replacement);
  Entry entry;
  if (!entry.enter(path)) return PSP_FAILED;
  psp_status status = entry.find_file(new_contents);
  if (status != PSP_OKAY) return status;
  const HeapId heap = entry.heap();
  status = entry.find_file(entry.name());
  if (status != PSP_OKAY || entry.heap() == heap) return status;
  const HeapId old_heap = entry.heap();
  entry.set_heap(heap);
  entry.find_file(new_contents);
  entry.remove();
  shmcache_delete(old_heap);
  return PSP_OKAY;
}

// The first file is held open while the second is asked for: its identifier stays its own.
bool mfile_is_same(const char *first, const char *second, bool *is_same) {
  const core::PutOffReports put_off;
  SegmentedFile file;
  *is_same = false;
  if (open_contents(first, false, &file)) {
    *is_same = query(second, [](HeapId id) { return int64_t{id}; }) == file.heap();
    file.close();
  }
  return *is_same || os::file_condition(os::last_error()) != os::Condition::kShortOfMemory;
}

int32_t mfile_validate(const char *path, uint32_t *is_directory) {
  const core::PutOffReports put_off;
  const bool is_found_directory = leads_to_directory(path);
  if (!is_found_directory) {
    Entry entry;
    if (!entry.enter(path) || entry.find_file(entry.name()) != PSP_OKAY) return 0;
  }
  if (is_directory != nullptr) *is_directory = is_found_directory ? 1 : 0;
  return 1;
}

}  // namespace psp::memstore

psp_status psp::core::store_start() { return psp::memstore::segfile_start(); }

void psp::core::store_stop() { psp::memstore::segfile_stop(); }
