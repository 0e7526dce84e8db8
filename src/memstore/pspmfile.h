// The in-memory file store as the files family calls it: files by handle and by name, and the
// iteration over a directory.
//
// The store's names form a tree of directories, which come into being with the files in them and
// never go. Both separators are accepted; a drive before a name is ignored. Names are compared
// without regard to ASCII case and keep the case in which they were created. A name that is not
// there sets the last error to "not found".
//
// Any thread may call anything; a handle or an iterator is used by one thread at a time. No lock is
// held between calls but what mfile_lock took. Failed allocations are reported when every lock of
// the call is left; the callers run inside core::exported_call.
//
// Included by the modules of files/.
#pragma once

#include <cstdint>

#include "psp.h"

namespace psp::memstore {

struct StoreFile;
struct StoreIterator;

// ---- Files by handle ----------------------------------------------------------------------------

// PSP_OPEN_CREATE creates a missing file, PSP_OPEN_TRUNCATE empties it. Null on failure.
StoreFile *mfile_open(const char *path, uint32_t flags);

// Also gives up what this thread's mfile_lock took through the handle. Waits for another thread
// that has locked the file.
void mfile_close(StoreFile *file);

// From the start (0), the position (1) or the end (2). PSP_FAILED, with the position unchanged, for
// another whence and for a place before the start or behind the end.
psp_status mfile_seek(StoreFile *file, int64_t offset, int32_t whence);

// Give the bytes moved: fewer than count at the end, or when memory is short.
uint32_t mfile_read(StoreFile *file, void *buffer, uint32_t count);
uint32_t mfile_write(StoreFile *file, const void *buffer, uint32_t count);
uint32_t mfile_seek_read(StoreFile *file, uint64_t offset, void *buffer, uint32_t count);
uint32_t mfile_seek_write(StoreFile *file, uint64_t offset, const void *buffer, uint32_t count);

// The lock of the whole file: waits for another thread; the holder may take it again.
void mfile_lock(StoreFile *file);
// Nothing happens unless this thread holds the lock through this handle.
void mfile_unlock(StoreFile *file);

uint64_t mfile_length(const StoreFile *file);

// PSP_OKAY or PSP_FAILED. Whoever sets the size while others use the file holds its lock.
psp_status mfile_set_size(StoreFile *file, uint64_t bytes);

// ---- By name ------------------------------------------------------------------------------------

// 0 for what is no file.
int64_t mfile_length_stat(const char *path);
int64_t mfile_modification_time_stat(const char *path);

// PSP_OKAY, PSP_NOTFOUND, or PSP_FAILED for a directory. The name goes at once, the contents with
// the last handle.
psp_status mfile_remove(const char *path);

// Gives the file or directory the last component of the new path for a name, in the directory where
// it is. PSP_NOTFOUND without the old name; PSP_FAILED when the new one exists or memory is short:
// the old name stays.
psp_status mfile_rename(const char *old_path, const char *new_path);

// Gives the file at `path` the contents of the file that the last component of `replacement` names
// in the same directory; that name goes. In one step, as far as anyone can see. PSP_OKAY,
// PSP_NOTFOUND or PSP_FAILED.
psp_status mfile_replace(const char *replacement, const char *path);

// 1 for a directory (*is_directory 1) or a file (0), else 0. is_directory may be null.
int32_t mfile_validate(const char *path, uint32_t *is_directory);

// Whether two paths lead to the same existing file. False when that cannot be told, since memory is
// short.
[[nodiscard]] bool mfile_is_same(const char *first, const char *second, bool *is_same);

// ---- Iteration ----------------------------------------------------------------------------------

// Null when the directory is missing or memory is short.
StoreIterator *mfile_path_open(const char *directory, const char *pattern);

// The next name that matches, in order; null at the end, after which it begins anew. The name is
// the iterator's, until its next call. Names that come and go meanwhile are seen as they are when
// their turn comes.
const char *mfile_path_next(StoreIterator *iterator, uint32_t *is_directory);

void mfile_path_close(StoreIterator *iterator);

}  // namespace psp::memstore
