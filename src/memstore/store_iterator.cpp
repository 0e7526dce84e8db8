// The iteration over a directory of the in-memory file store. A part of module pspmfile.
//
// An iterator reads ahead: it copies some names at a time under the directory's lock. As long as
// the directory has not changed since, it hands them out without a lock and without a search; after
// a change it goes on behind the name that it looked at last.
#include <algorithm>
#include <cstring>
#include <new>

#include "core/exported_call.h"
#include "files/files.h"
#include "memstore/pspmfile.h"
#include "memstore/store_names.h"

namespace psp::memstore {
namespace {

constexpr char kSource[] = "store_iterator.cpp";
constexpr size_t kAheadBytes = 2048;
constexpr size_t kExtraBytes = 2;  // type and NUL of a name

}  // namespace

// The pattern stands behind the record.
struct StoreIterator {
  Walk walk;
  bool matches_everything = false;

  // Names read ahead, each an entry type in one byte, then the bytes and a NUL.
  char *names = nullptr;
  size_t capacity = 0;
  size_t used = 0;
  size_t next = 0;                   // where the next name begins
  const char *last = nullptr;        // the name looked at last; null at the start
  uint32_t changes = 0;              // of the directory, when it was opened or read last
  size_t ahead_bytes = kAheadBytes;  // names are read ahead until so many bytes are used

  char *pattern() { return reinterpret_cast<char *>(this + 1); }
  SegmentedFile *directory() { return walk.directory().file(); }
};

namespace {

void free_iterator(StoreIterator *iterator) {
  const os::LastErrorKeeper keeper;
  psp_freeMem(iterator->names, nullptr);
  iterator->~StoreIterator();
  psp_freeMem(iterator, nullptr);
}

// Only for the first of the names ahead: one that does not fit behind others has time.
bool provide_room(StoreIterator *iterator, size_t bytes) {
  const size_t wanted = iterator->used + bytes;
  if (wanted <= iterator->capacity) return true;
  if (iterator->used != 0) return false;
  const size_t capacity = std::max(wanted, kAheadBytes);
  void *grown = psp_extendMem(iterator->names, capacity, nullptr, 0, 0, kSource, __LINE__);
  if (grown == nullptr) return false;
  iterator->names = static_cast<char *>(grown);
  iterator->capacity = capacity;
  return true;
}

bool append_name(StoreIterator *iterator, const DirectoryCursor &cursor) {
  const DirectoryEntry entry = mdir_read(cursor);
  if (!provide_room(iterator, entry.name_bytes + kExtraBytes)) return false;
  char *place = iterator->names + iterator->used;
  *place++ = static_cast<char>(entry.type);
  mdir_copy_name(cursor, entry, place);
  place[entry.name_bytes] = '\0';
  iterator->used += entry.name_bytes + kExtraBytes;
  return true;
}

// Moves to the entry behind the last one.
bool find_place(const StoreIterator &iterator, DirectoryCursor *cursor) {
  if (iterator.last == nullptr) return mdir_first(cursor);
  const bool is_there = mdir_search(cursor, iterator.last) == PSP_OKAY;
  return mdir_next(cursor, is_there);
}

// Reads ahead from behind the last name. False at the end, and when memory is short.
bool read_ahead(StoreIterator *iterator) {
  Directory &directory = iterator->walk.directory();
  directory.lock();
  DirectoryCursor cursor;
  cursor.file = directory.file();
  bool is_at_entry = find_place(*iterator, &cursor);
  iterator->changes = cursor.file->changes();
  iterator->used = 0;
  iterator->next = 0;
  while (is_at_entry && append_name(iterator, cursor) && iterator->used < iterator->ahead_bytes) {
    is_at_entry = mdir_next(&cursor, true);
  }
  directory.unlock();
  return iterator->used != 0;
}

// The type of the next name, which becomes the last one; null at the end.
const char *take_next(StoreIterator *iterator) {
  const bool is_current = iterator->changes == iterator->directory()->changes();
  if (!is_current || iterator->next == iterator->used) {
    // A directory that changes while it is read is likely to change again: no names in vain.
    iterator->ahead_bytes = is_current ? std::min(kAheadBytes, 2 * iterator->ahead_bytes) : 1;
    if (!read_ahead(iterator)) return nullptr;
  }
  const char *type = iterator->names + iterator->next;
  iterator->last = type + 1;
  iterator->next += strlen(iterator->last) + kExtraBytes;
  return type;
}

}  // namespace

StoreIterator *mfile_path_open(const char *directory, const char *pattern) {
  const core::PutOffReports put_off;
  const size_t pattern_bytes = strlen(pattern) + 1;
  void *memory = psp_getMem(sizeof(StoreIterator) + pattern_bytes, nullptr, PSP_MEM_ALLOC, nullptr,
                            kSource, __LINE__);
  if (memory == nullptr) return nullptr;
  auto *iterator = new (memory) StoreIterator;
  memcpy(iterator->pattern(), pattern, pattern_bytes);
  iterator->matches_everything = strcmp(pattern, "*") == 0;
  OwnText path;
  if (path.take_path(psp_pathStripDrive(directory)) && normalise(path.text()) &&
      iterator->walk.open(path.text(), false)) {
    iterator->changes = iterator->directory()->changes();
    return iterator;
  }
  free_iterator(iterator);
  return nullptr;
}

const char *mfile_path_next(StoreIterator *iterator, uint32_t *is_directory) {
  const core::PutOffReports put_off;
  while (const char *type = take_next(iterator)) {
    const char *name = iterator->last;
    if (!iterator->matches_everything && !files::matches_pattern(name, iterator->pattern())) {
      continue;
    }
    *is_directory = static_cast<EntryType>(*type) == EntryType::kDirectory ? 1 : 0;
    return name;
  }
  iterator->last = nullptr;
  return nullptr;
}

void mfile_path_close(StoreIterator *iterator) { free_iterator(iterator); }

}  // namespace psp::memstore
