/* The catalog: all packages by name, made by two threads that a queue joins.
 *
 * The reader reads the records and writes each package into the queue. The indexer takes them out,
 * sorts them, writes the index if one is wanted, and opens a gate. Each thread has a tag of its
 * own, which needs no lock therefore. Nobody can wait for a thread as such: the gate tells that
 * both are done, and what stands before it may be looked at behind it.
 *
 * The message at the end brings the reader's result and count. A message for which memory is short
 * is dropped: the count shows it, or, if that very message is missing, the reader's own gate. */
#include <stdlib.h>
#include <string.h>

#include "pkgdb.h"

enum { kPatience = 100 }; /* milliseconds without a message after which the indexer looks around */

static void run_reader(void *argument) {
  Reader *reader = argument;
  uint64_t start = psp_timeNanoSecs();
  int result = read_records(reader);
  if (result == 0 && reader->is_logged) log_step("records read", start);
  psp_queueWrite(reader->packages, (psp_word)result, reader->count, kEndMessage, 0);
  psp_syncResume(reader->ended); /* last: from here on the reader may be released */
}

/* ---- The indexer ----------------------------------------------------------------------------- */

static int add_package(Catalog *catalog, const Package *package) {
  if (catalog->count == catalog->capacity) {
    uint32_t capacity = catalog->capacity == 0 ? 256 : 2 * catalog->capacity;
    const Package **packages = psp_extendMem(catalog->packages, capacity * sizeof *packages,
                                             catalog->tag, 0, 0, __FILE__, __LINE__);
    if (packages == NULL) return kFailed;
    catalog->packages = packages;
    catalog->capacity = capacity;
  }
  catalog->packages[catalog->count++] = package;
  return 0;
}

/* Takes messages until the reader is done, whatever has gone wrong: what it uses goes afterwards.
 */
static int collect(Catalog *catalog) {
  Reader *reader = &catalog->reader;
  int result = 0;
  psp_word data, extra, type;
  for (;;) {
    int is_over = psp_syncWait(reader->ended, 0) == PSP_OKAY;
    psp_status status = psp_queueRead(reader->packages, &data, &extra, &type, kPatience);
    if (status == PSP_OKAY && type == kEndMessage) {
      if (result == 0) result = (int)data;
      break;
    }
    if (status == PSP_OKAY && result == 0) result = add_package(catalog, (const Package *)data);
    if (status != PSP_OKAY && is_over) {
      result = kFailed;
      break;
    }
  }
  while (psp_syncWait(reader->ended, PSP_NO_LIMIT) != PSP_OKAY) psp_sleep(1);
  return result == 0 && catalog->count != reader->count ? kFailed : result;
}

static int by_name(const void *left, const void *right) {
  const Package *a = *(const Package *const *)left, *b = *(const Package *const *)right;
  int order = strcmp(a->name, b->name);
  return order != 0 ? order : a->number < b->number ? -1 : 1; /* of one name: as they were read */
}

static int build(Catalog *catalog) {
  int result = collect(catalog);
  if (result != 0) return result;
  uint64_t start = psp_timeNanoSecs();
  qsort(catalog->packages, catalog->count, sizeof *catalog->packages, by_name);
  if (catalog->index_path == NULL) return 0;
  result = write_index(catalog);
  if (result != 0) return result;
  log_step("index written", start);
  start = psp_timeNanoSecs();
  result = check_index(catalog);
  if (result == 0) log_step("index read back, the same", start);
  return result;
}

static void run_indexer(void *argument) {
  Catalog *catalog = argument;
  catalog->result = build(catalog);
  psp_syncResume(catalog->built); /* last: whoever waited may end the catalog at once */
}

/* ---- Start and end --------------------------------------------------------------------------- */

/* A gate that is closed; a new one is open. */
static psp_sync closed_gate(void) {
  psp_sync gate = psp_syncCreate(PSP_SYNC_EVENT);
  if (gate != PSP_SYNC_NONE) psp_syncStart(gate);
  return gate;
}

int start_catalog(Catalog *catalog, const char *input, const char *index_path, uint16_t mode) {
  Reader *reader = &catalog->reader;
  *catalog = (Catalog){.index_path = index_path, .mode = mode};
  catalog->built = closed_gate();
  catalog->tag = psp_createTag(0);
  reader->path = input;
  reader->is_logged = index_path != NULL;
  reader->ended = closed_gate();
  reader->tag = psp_createTag(0);
  reader->packages = psp_queueCreate("packages");
  if (catalog->built == PSP_SYNC_NONE || reader->ended == PSP_SYNC_NONE ||
      catalog->tag == PSP_TAG_FAILED || reader->tag == PSP_TAG_FAILED || reader->packages == NULL) {
    psp_log_err("the packages cannot be read: memory is short\n");
    return kFailed;
  }
  if (psp_threadBegin(run_indexer, 0, catalog) != PSP_OKAY) return kFailed;
  if (psp_threadBegin(run_reader, 0, reader) != PSP_OKAY) {
    psp_queueWrite(reader->packages, kFailed, 0, kEndMessage, 0);
    psp_syncResume(reader->ended);
  }
  return 0;
}

/* A wait that the platform refuses is tried again: the threads use what would be released. */
int wait_for_catalog(const Catalog *catalog) {
  while (psp_syncWait(catalog->built, PSP_NO_LIMIT) != PSP_OKAY) psp_sleep(1);
  return catalog->result;
}

int load_catalog(Catalog *catalog, const char *input) {
  int result = start_catalog(catalog, input, NULL, 0);
  return result == 0 ? wait_for_catalog(catalog) : result;
}

void end_catalog(Catalog *catalog) {
  Reader *reader = &catalog->reader;
  psp_queueDelete(reader->packages);
  psp_freeTagMemory(reader->tag, 1);
  psp_syncDelete(reader->ended);
  psp_freeTagMemory(catalog->tag, 1);
  psp_syncDelete(catalog->built);
}
