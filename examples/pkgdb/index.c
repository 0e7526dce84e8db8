/* The index: a binary file of all packages by name, built by a thread of its own.
 *
 * start_index begins the worker, which sorts, writes the file at offsets, reads it back in another
 * order, and opens a gate. Nobody can wait for a thread as such: the gate tells that it is done.
 * Until then the worker alone uses the index and its tag, which needs no lock therefore, and nobody
 * changes the database. */
#include <stdlib.h>
#include <string.h>

#include "pkgdb.h"

/* ---- The file -------------------------------------------------------------------------------- */

/* IndexHeader, then one IndexEntry for each package, then the texts. Numbers are in the machine's
 * own order: the file is for this machine. */
typedef struct {
  char magic[8];
  uint32_t count;
  uint32_t entry_size;
} IndexHeader;

typedef struct {
  int64_t offset;  /* of the text "name version section" with their zero bytes */
  uint32_t length; /* of the text in bytes */
  uint32_t kib;
} IndexEntry;

static const char kMagic[8] = "PKGDB01";

static int64_t entry_offset(uint32_t index) {
  return (int64_t)sizeof(IndexHeader) + (int64_t)index * (int64_t)sizeof(IndexEntry);
}

/* The package's texts in the index, each with its zero byte; the caller releases them. */
static char *index_text(const Index *index, const Package *package, uint32_t *length) {
  const char *parts[] = {package->name, or_empty(package->version), or_empty(package->section)};
  size_t sizes[3], total = 0;
  for (int i = 0; i < 3; ++i) total += sizes[i] = strlen(parts[i]) + 1;
  char *text = psp_alloc(total, index->tag);
  if (text == NULL) return NULL;
  char *next = text;
  for (int i = 0; i < 3; ++i) {
    memcpy(next, parts[i], sizes[i]);
    next += sizes[i];
  }
  *length = (uint32_t)total;
  return text;
}

static int write_exactly(PSP_FH file, int64_t offset, const void *data, uint32_t size) {
  return psp_fileSeekWrite(file, offset, data, size) == (int32_t)size;
}

static int read_exactly(PSP_FH file, int64_t offset, void *data, uint32_t size) {
  return psp_fileSeekRead(file, offset, data, size) == (int32_t)size;
}

/* The header goes last: a file with a header is complete. */
static int write_content(const Index *index, PSP_FH file) {
  uint32_t count = index->database->count;
  int64_t end = entry_offset(count);
  for (uint32_t i = 0; i < count; ++i) {
    IndexEntry entry = {.offset = end, .kib = index->order[i]->kib};
    char *text = index_text(index, index->order[i], &entry.length);
    int written = text != NULL && write_exactly(file, end, text, entry.length) &&
                  write_exactly(file, entry_offset(i), &entry, sizeof entry);
    psp_freeMem(text, index->tag);
    if (!written) return 0;
    end += entry.length;
  }
  IndexHeader header = {.count = count, .entry_size = sizeof(IndexEntry)};
  memcpy(header.magic, kMagic, sizeof kMagic);
  return write_exactly(file, 0, &header, sizeof header);
}

static int write_index(const Index *index) {
  /* Nobody who uses the library may write while we do. */
  PSP_FH file = psp_fileOpen(index->path, PSP_OPEN_WRITE | PSP_OPEN_TRUNCATE,
                             index->mode | PSP_FILE_DENY_WRITE);
  int result = 0;
  if (file == NULL || !write_content(index, file)) {
    result = file_failed(index->path, "cannot be written", kFailed);
  }
  psp_fileClose(file);
  return result;
}

static int same_entry(const Index *index, PSP_FH file, uint32_t number) {
  const Package *package = index->order[number];
  IndexEntry entry;
  uint32_t length = 0;
  if (!read_exactly(file, entry_offset(number), &entry, sizeof entry)) return 0;
  char *expected = index_text(index, package, &length);
  char *found = psp_alloc(length, index->tag);
  int same = expected != NULL && found != NULL && entry.length == length &&
             entry.kib == package->kib && read_exactly(file, entry.offset, found, length) &&
             memcmp(expected, found, length) == 0;
  psp_freeMem(found, index->tag);
  psp_freeMem(expected, index->tag);
  return same;
}

static int check_index(const Index *index) {
  uint32_t count = index->database->count;
  PSP_FH file = psp_fileOpen(index->path, PSP_OPEN_READ, index->mode);
  IndexHeader header;
  int same = file != NULL && read_exactly(file, 0, &header, sizeof header) &&
             memcmp(header.magic, kMagic, sizeof kMagic) == 0 && header.count == count &&
             header.entry_size == sizeof(IndexEntry);
  for (uint32_t i = count; same && i-- > 0;) same = same_entry(index, file, i);
  psp_fileClose(file);
  if (!same) psp_log_err("%s: does not hold what was written\n", index->path);
  return same ? 0 : kFailed;
}

/* ---- The worker ------------------------------------------------------------------------------ */

static int by_name(const void *left, const void *right) {
  const Package *a = *(const Package *const *)left, *b = *(const Package *const *)right;
  int order = strcmp(a->name, b->name);
  if (order == 0) order = a < b ? -1 : a > b; /* of one name: as they were read */
  return order;
}

static int sort(Index *index) {
  uint32_t count = index->database->count;
  index->order = psp_alloc(count * sizeof *index->order, index->tag);
  if (index->order == NULL) return kFailed;
  for (uint32_t i = 0; i < count; ++i) index->order[i] = &index->database->packages[i];
  qsort(index->order, count, sizeof *index->order, by_name);
  return 0;
}

static int build(Index *index) {
  uint64_t start = psp_timeNanoSecs();
  int result = sort(index);
  if (result == 0) result = write_index(index);
  if (result != 0) return result;
  log_step("index written", start);

  start = psp_timeNanoSecs();
  result = check_index(index);
  if (result == 0) log_step("index read back, the same", start);
  return result;
}

static void run_worker(void *argument) {
  Index *index = argument;
  index->result = build(index);
  psp_syncResume(index->built); /* last: whoever waited may end the index at once */
}

int start_index(Index *index, const Database *database, const Settings *settings) {
  *index = (Index){.database = database, .mode = settings->mode};
  index->built = psp_syncCreate(PSP_SYNC_EVENT);
  index->tag = psp_createTag(0);
  if (index->built == PSP_SYNC_NONE || index->tag == PSP_TAG_FAILED) {
    psp_log_err("the index cannot be started: memory is short\n");
    return kFailed;
  }
  index->path = data_path(settings->folder, "packages.idx", index->tag);
  if (index->path == NULL) return kFailed;
  psp_syncStart(index->built); /* a new gate is open */
  return psp_threadBegin(run_worker, 0, index) == PSP_OKAY ? 0 : kFailed;
}

/* A wait that the platform refuses is tried again: the worker uses what would be released. */
int wait_for_index(Index *index) {
  while (psp_syncWait(index->built, PSP_NO_LIMIT) != PSP_OKAY) psp_sleep(1);
  return index->result;
}

void end_index(Index *index) {
  psp_freeTagMemory(index->tag, 1);
  psp_syncDelete(index->built);
}
