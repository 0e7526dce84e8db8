/* pkgdb: a tiny package database, made from the records that Debian's package manager keeps.
 *
 *   pkgdb [STATUS-FILE [OUTPUT-FOLDER]]
 *
 * It shows how the families of psp work together, in the order in which a program meets them:
 *
 *   start and stop   psp_init, psp_term
 *   log              psp_log writes to the console and, stamped, to OUTPUT-FOLDER/pkgdb.log
 *   text streams     reads the status file line by line
 *   tagged memory    all records belong to one tag and go in one call
 *   file handles     writes an index at offsets, and reads it back in another order
 *   UTF-16 text      writes the report as UTF-16 and reads it back as UTF-8
 *
 * Ends with 0; 2 for a wrong call, 3 if the input cannot be opened, 4 if it is not what it should
 * be, 5 if memory is short, a result cannot be written or did not come back as it was written. */
#if !defined(_WIN32)
#define _POSIX_C_SOURCE 200809L /* mkdir */
#endif

#include <errno.h>
#include <psp.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#if defined(__GLIBC__)
#include <malloc.h>
#endif
#if defined(_WIN32)
#include <direct.h>
#define mkdir(name, mode) _mkdir(name)
#endif

enum { kUsage = 2, kNoInput = 3, kBadInput = 4, kFailed = 5 };
enum { kLargest = 10 };

static const char kStatusFile[] = "/var/lib/dpkg/status";
static const char kOutputFolder[] = "pkgdb-out";

typedef struct {
  char *name;
  char *version;
  char *section;
  char *summary; /* the description's first line */
  uint32_t kib;  /* installed size */
} Package;

typedef struct {
  psp_tag *tag; /* owns everything below, and every string of every package */
  Package *packages;
  uint32_t count;
  uint32_t capacity;
  uint32_t lines;
  uint32_t not_installed; /* records of packages that were removed */
} Database;

/* ---- Reading the records --------------------------------------------------------------------- */

/* The stanza under way. Its strings are in the database's tag already. */
typedef struct {
  Package package;
  int has_fields;
  int installed;
} Stanza;

static int append_package(Database *database, const Package *package) {
  if (database->count == database->capacity) {
    uint32_t capacity = database->capacity == 0 ? 256 : 2 * database->capacity;
    Package *packages = psp_extendMem(database->packages, capacity * sizeof *packages,
                                      database->tag, 0, 0, __FILE__, __LINE__);
    if (packages == NULL) return kFailed; /* the library has logged why */
    database->packages = packages;
    database->capacity = capacity;
  }
  database->packages[database->count++] = *package;
  return 0;
}

static int finish_stanza(Database *database, Stanza *stanza, const char *path) {
  int result = 0;
  if (stanza->has_fields && stanza->package.name == NULL) {
    psp_log_err("%s:%u: the record that ends here has no Package field\n", path, database->lines);
    return kBadInput;
  }
  if (stanza->has_fields && stanza->installed) {
    result = append_package(database, &stanza->package);
  } else if (stanza->has_fields) {
    ++database->not_installed;
  }
  memset(stanza, 0, sizeof *stanza);
  return result;
}

/* A number of KiB, nothing around it. */
static int parse_kib(const char *text, uint32_t *kib) {
  char *end;
  errno = 0;
  unsigned long long value = strtoull(text, &end, 10);
  if (text[0] < '0' || text[0] > '9' || *end != '\0' || errno != 0 || value > UINT32_MAX) return 0;
  *kib = (uint32_t)value;
  return 1;
}

static int take_field(Database *database, Stanza *stanza, const char *path, const char *field,
                      const char *value) {
  Package *package = &stanza->package;
  char **text = NULL;
  stanza->has_fields = 1;
  if (strcmp(field, "Package") == 0) {
    text = &package->name;
  } else if (strcmp(field, "Version") == 0) {
    text = &package->version;
  } else if (strcmp(field, "Section") == 0) {
    text = &package->section;
  } else if (strcmp(field, "Description") == 0) {
    text = &package->summary;
  } else if (strcmp(field, "Status") == 0) {
    stanza->installed =
        strcmp(value, "install ok installed") == 0 || strcmp(value, "hold ok installed") == 0;
  } else if (strcmp(field, "Installed-Size") == 0 && !parse_kib(value, &package->kib)) {
    psp_log_err("%s:%u: \"%s\" is no size\n", path, database->lines, value);
    return kBadInput;
  }
  if (text == NULL) return 0;
  *text = psp_strdup(value, database->tag);
  return *text != NULL ? 0 : kFailed;
}

/* One line without its line feed: "Field: value", a continuation, or the end of a record. */
static int take_line(Database *database, Stanza *stanza, const char *path, char *line) {
  if (line[0] == '\0') return finish_stanza(database, stanza, path);
  if (line[0] == ' ' || line[0] == '\t') return 0;
  char *colon = strchr(line, ':');
  if (colon == NULL || colon == line) {
    psp_log_err("%s:%u: neither a field nor the rest of one\n", path, database->lines);
    return kBadInput;
  }
  *colon = '\0';
  return take_field(database, stanza, path, line, colon + 1 + strspn(colon + 1, " \t"));
}

static int read_records(Database *database, const char *path) {
  psp_stream *stream = psp_fopen(path, "r", 0);
  if (stream == NULL) {
    psp_log_err("%s: %s\n", path, strerror((int)psp_errno()));
    return kNoInput;
  }
  Stanza stanza = {0};
  int result = 0;
  char *line = NULL; /* grows as lines want it; belongs to the default tag */
  uint32_t size = 0;
  while (result == 0 && psp_fGetLine(stream, &line, &size) != NULL) {
    ++database->lines;
    line[strcspn(line, "\n")] = '\0';
    result = take_line(database, &stanza, path, line);
  }
  if (result == 0) result = finish_stanza(database, &stanza, path);
  if (result == 0 && database->count == 0) {
    psp_log_err("%s: no record of an installed package\n", path);
    result = kBadInput;
  }
  psp_freeMem(line, NULL);
  psp_fclose(stream);
  return result;
}

/* ---- The index: a binary file written and read at offsets ------------------------------------ */

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

static const char *or_empty(const char *text) { return text != NULL ? text : ""; }

/* The package's texts in the index, each with its zero byte; the caller releases them. */
static char *index_text(const Database *database, const Package *package, uint32_t *length) {
  const char *parts[] = {package->name, or_empty(package->version), or_empty(package->section)};
  size_t sizes[3], total = 0;
  for (int i = 0; i < 3; ++i) total += sizes[i] = strlen(parts[i]) + 1;
  char *text = psp_alloc(total, database->tag);
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
static int write_index_content(const Database *database, PSP_FH file) {
  int64_t end = entry_offset(database->count);
  for (uint32_t i = 0; i < database->count; ++i) {
    IndexEntry entry = {.offset = end, .kib = database->packages[i].kib};
    char *text = index_text(database, &database->packages[i], &entry.length);
    int written = text != NULL && write_exactly(file, end, text, entry.length) &&
                  write_exactly(file, entry_offset(i), &entry, sizeof entry);
    psp_freeMem(text, database->tag);
    if (!written) return 0;
    end += entry.length;
  }
  IndexHeader header = {.count = database->count, .entry_size = sizeof(IndexEntry)};
  memcpy(header.magic, kMagic, sizeof kMagic);
  return write_exactly(file, 0, &header, sizeof header);
}

static int write_index(const Database *database, const char *path) {
  /* Nobody who uses the library may write while we do. */
  PSP_FH file = psp_fileOpen(path, PSP_OPEN_WRITE | PSP_OPEN_TRUNCATE, PSP_FILE_DENY_WRITE);
  int written = file != NULL && write_index_content(database, file);
  if (!written) psp_log_err("%s: cannot be written: %s\n", path, strerror((int)psp_errno()));
  psp_fileClose(file);
  return written ? 0 : kFailed;
}

static int same_entry(const Database *database, PSP_FH file, uint32_t index) {
  IndexEntry entry;
  uint32_t length = 0;
  if (!read_exactly(file, entry_offset(index), &entry, sizeof entry)) return 0;
  char *expected = index_text(database, &database->packages[index], &length);
  char *found = psp_alloc(length, database->tag);
  int same = expected != NULL && found != NULL && entry.length == length &&
             entry.kib == database->packages[index].kib &&
             read_exactly(file, entry.offset, found, length) &&
             memcmp(expected, found, length) == 0;
  psp_freeMem(found, database->tag);
  psp_freeMem(expected, database->tag);
  return same;
}

static int check_index(const Database *database, const char *path) {
  PSP_FH file = psp_fileOpen(path, PSP_OPEN_READ, 0);
  IndexHeader header;
  int same = file != NULL && read_exactly(file, 0, &header, sizeof header) &&
             memcmp(header.magic, kMagic, sizeof kMagic) == 0 && header.count == database->count &&
             header.entry_size == sizeof(IndexEntry);
  for (uint32_t i = database->count; same && i-- > 0;) same = same_entry(database, file, i);
  psp_fileClose(file);
  if (!same) psp_log_err("%s: does not hold what was written\n", path);
  return same ? 0 : kFailed;
}

/* ---- The report: UTF-16 text ----------------------------------------------------------------- */

static char *report_line(const Database *database, const Package *package) {
  return psp_makeStr(database->tag, "%s\t%s\t%s\t%u\t%s\n", package->name,
                     or_empty(package->version), or_empty(package->section), package->kib,
                     or_empty(package->summary));
}

static int write_report(const Database *database, const char *path) {
  psp_stream *stream = psp_fopen(path, "w", 2); /* units of two bytes: UTF-16 */
  int written = stream != NULL;
  for (uint32_t i = 0; written && i < database->count; ++i) {
    char *line = report_line(database, &database->packages[i]);
    written = line != NULL && psp_fputs(line, stream) >= 0;
    psp_freeMem(line, database->tag);
  }
  if (!written) psp_log_err("%s: cannot be written: %s\n", path, strerror((int)psp_errno()));
  psp_fclose(stream);
  return written ? 0 : kFailed;
}

/* The stream finds out by the mark that the file is UTF-16, and gives UTF-8. */
static int check_report(const Database *database, const char *path) {
  psp_stream *stream = psp_fopen(path, "r", 0);
  char *found = NULL;
  uint32_t size = 0, lines = 0;
  int same = stream != NULL;
  while (same && psp_fGetLine(stream, &found, &size) != NULL) {
    char *expected =
        lines < database->count ? report_line(database, &database->packages[lines]) : NULL;
    same = expected != NULL && strcmp(expected, found) == 0;
    psp_freeMem(expected, database->tag);
    ++lines;
  }
  same = same && lines == database->count;
  if (!same) psp_log_err("%s: line %u is not what was written\n", path, lines);
  psp_freeMem(found, NULL);
  psp_fclose(stream);
  return same ? 0 : kFailed;
}

/* ---- What the user sees ---------------------------------------------------------------------- */

static int larger_first(const void *left, const void *right) {
  const Package *a = *(const Package *const *)left, *b = *(const Package *const *)right;
  if (a->kib != b->kib) return a->kib < b->kib ? 1 : -1;
  return strcmp(a->name, b->name);
}

static int print_largest(const Database *database) {
  const Package **order = psp_alloc(database->count * sizeof *order, database->tag);
  if (order == NULL) return kFailed;
  uint64_t total_kib = 0;
  for (uint32_t i = 0; i < database->count; ++i) {
    order[i] = &database->packages[i];
    total_kib += order[i]->kib;
  }
  qsort(order, database->count, sizeof *order, larger_first);
  psp_printf("\n%u packages installed, %u removed, %.1f MiB, %u lines read\n\n", database->count,
             database->not_installed, (double)total_kib / 1024, database->lines);
  psp_printf("%-32s %10s  %-12s %s\n", "largest packages", "KiB", "section", "summary");
  for (uint32_t i = 0; i < database->count && i < kLargest; ++i) {
    psp_printf("%-32s %10u  %-12s %s\n", order[i]->name, order[i]->kib, or_empty(order[i]->section),
               or_empty(order[i]->summary));
  }
  psp_printf("\n");
  psp_freeMem(order, database->tag);
  return 0;
}

/* Bytes that the C runtime has handed out, with the small blocks that it keeps at hand when they
 * are released; 0 where it does not tell. */
static uint64_t heap_in_use(void) {
#if defined(__GLIBC__) && (__GLIBC__ > 2 || __GLIBC_MINOR__ >= 33)
  struct mallinfo2 heap = mallinfo2();
  return (uint64_t)heap.uordblks + (uint64_t)heap.hblkhd;
#else
  return 0;
#endif
}

static void log_step(const char *what, uint64_t start) {
  psp_log("%-34s %8.1f ms\n", what, (double)(psp_timeNanoSecs() - start) / 1e6);
}

/* ---- The steps in their order ---------------------------------------------------------------- */

static int work_on(Database *database, const char *status_file, const char *folder) {
  char *index = psp_makeStr(database->tag, "%s/packages.idx", folder);
  char *report = psp_makeStr(database->tag, "%s/packages-utf16.txt", folder);
  if (index == NULL || report == NULL) return kFailed;

  uint64_t start = psp_timeNanoSecs();
  int result = read_records(database, status_file);
  if (result != 0) return result;
  log_step("records read", start);

  start = psp_timeNanoSecs();
  if ((result = write_index(database, index)) != 0) return result;
  log_step("index written", start);

  start = psp_timeNanoSecs();
  if ((result = check_index(database, index)) != 0) return result;
  log_step("index read back, the same", start);

  start = psp_timeNanoSecs();
  if ((result = write_report(database, report)) != 0) return result;
  log_step("UTF-16 report written", start);

  start = psp_timeNanoSecs();
  if ((result = check_report(database, report)) != 0) return result;
  log_step("UTF-16 report read back, the same", start);

  return print_largest(database);
}

static int run(const char *status_file, const char *folder) {
  if (mkdir(folder, 0777) != 0 && errno != EEXIST) {
    psp_log_err("%s: %s\n", folder, strerror(errno));
    return kFailed;
  }
  if (psp_log_create(folder, "/pkgdb.log") != PSP_OKAY) {
    psp_log_err("%s/pkgdb.log: %s\n", folder, strerror((int)psp_errno()));
    return kFailed;
  }
  psp_log("pkgdb: from %s into %s\n", status_file, folder);

  uint64_t heap_before = heap_in_use();
  Database database = {.tag = psp_createTag(0)};
  if (database.tag == PSP_TAG_FAILED) return kFailed;
  int result = work_on(&database, status_file, folder);

  /* Records, names, texts: everything that was obtained in the tag goes at once, whatever happened.
   */
  uint64_t heap_with_records = heap_in_use();
  psp_freeTagMemory(database.tag, 1);
  if (heap_before != 0) {
    psp_log("heap: %.1f KiB before, %.1f KiB with the records, %.1f KiB after their tag went\n",
            (double)heap_before / 1024, (double)heap_with_records / 1024,
            (double)heap_in_use() / 1024);
  }
  psp_log_close();
  return result;
}

int main(int argc, char **argv) {
  if (argc > 3 || (argc > 1 && argv[1][0] == '-')) {
    psp_errPrint("usage: pkgdb [STATUS-FILE [OUTPUT-FOLDER]]");
    return kUsage;
  }
  if (psp_init() != PSP_OKAY) {
    psp_errPrint("pkgdb: the library does not start");
    return kFailed;
  }
  int result = run(argc > 1 ? argv[1] : kStatusFile, argc > 2 ? argv[2] : kOutputFolder);
  psp_term();
  return result;
}
