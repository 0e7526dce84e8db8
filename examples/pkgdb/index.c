/* The index: a binary file of all packages by name, written at offsets and read back in another
 * order. */
#include <string.h>

#include "pkgdb.h"

/* In the file: IndexHeader, then one IndexEntry for each package, then the texts. Numbers are in
 * the machine's own order: the file is for this machine. */
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
static char *index_text(const Catalog *catalog, const Package *package, uint32_t *length) {
  const char *parts[] = {package->name, or_empty(package->version), or_empty(package->section)};
  size_t sizes[3], total = 0;
  for (int i = 0; i < 3; ++i) total += sizes[i] = strlen(parts[i]) + 1;
  char *text = psp_alloc(total, catalog->tag);
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
static int write_content(const Catalog *catalog, PSP_FH file) {
  uint32_t count = catalog->count;
  int64_t end = entry_offset(count);
  for (uint32_t i = 0; i < count; ++i) {
    IndexEntry entry = {.offset = end, .kib = catalog->packages[i]->kib};
    char *text = index_text(catalog, catalog->packages[i], &entry.length);
    int written = text != NULL && write_exactly(file, end, text, entry.length) &&
                  write_exactly(file, entry_offset(i), &entry, sizeof entry);
    psp_freeMem(text, catalog->tag);
    if (!written) return 0;
    end += entry.length;
  }
  IndexHeader header = {.count = count, .entry_size = sizeof(IndexEntry)};
  memcpy(header.magic, kMagic, sizeof kMagic);
  return write_exactly(file, 0, &header, sizeof header);
}

static int same_entry(const Catalog *catalog, PSP_FH file, uint32_t number) {
  const Package *package = catalog->packages[number];
  IndexEntry entry;
  uint32_t length = 0;
  if (!read_exactly(file, entry_offset(number), &entry, sizeof entry)) return 0;
  char *expected = index_text(catalog, package, &length);
  char *found = psp_alloc(length, catalog->tag);
  int same = expected != NULL && found != NULL && entry.length == length &&
             entry.kib == package->kib && read_exactly(file, entry.offset, found, length) &&
             memcmp(expected, found, length) == 0;
  psp_freeMem(found, catalog->tag);
  psp_freeMem(expected, catalog->tag);
  return same;
}

int write_index(const Catalog *catalog) {
  /* Nobody who uses the library may write while we do. */
  PSP_FH file = psp_fileOpen(catalog->index_path, PSP_OPEN_WRITE | PSP_OPEN_TRUNCATE,
                             catalog->mode | PSP_FILE_DENY_WRITE);
  int result = 0;
  if (file == NULL || !write_content(catalog, file)) {
    result = file_failed(catalog->index_path, "cannot be written", kFailed);
  }
  psp_fileClose(file);
  return result;
}

int check_index(const Catalog *catalog) {
  uint32_t count = catalog->count;
  PSP_FH file = psp_fileOpen(catalog->index_path, PSP_OPEN_READ, catalog->mode);
  IndexHeader header;
  int same = file != NULL && read_exactly(file, 0, &header, sizeof header) &&
             memcmp(header.magic, kMagic, sizeof kMagic) == 0 && header.count == count &&
             header.entry_size == sizeof(IndexEntry);
  for (uint32_t i = count; same && i-- > 0;) same = same_entry(catalog, file, i);
  psp_fileClose(file);
  if (!same) psp_log_err("%s: does not hold what was written\n", catalog->index_path);
  return same ? 0 : kFailed;
}
