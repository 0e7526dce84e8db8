/* pkgdb: a tiny package database, made from the records that Debian's package manager keeps.
 *
 *   pkgdb [--data FOLDER] report                  index and report of the installed packages
 *   pkgdb [--data FOLDER] --memory report         the same with all files in memory
 *   pkgdb [--data FOLDER] set SECTION KEY VALUE   changes a setting in FOLDER\pkgdb.ini
 *
 * It shows how the families of psp work together. Read on here, and then, in this order:
 *
 *   main.c      start and stop, the log, tags
 *   settings.c  INI configuration, paths
 *   packages.c  text streams, tagged memory
 *   index.c     a thread and a gate, file handles
 *   report.c    UTF-16 text, iteration over a folder, renames
 *   memory.c    the in-memory file store
 *
 * Ends with 0; 2 for a wrong call, 3 if the input cannot be opened, 4 if it is not what it should
 * be, 5 if memory is short, a result cannot be written or did not come back as it was written, 6
 * for a setting that is not what it should be. */
#include <stdlib.h>
#include <string.h>
#if defined(__GLIBC__)
#include <malloc.h>
#endif

#include "pkgdb.h"

static const char kDataFolder[] = "pkgdb-out";

void log_step(const char *what, uint64_t start) {
  psp_log("%-34s %8.1f ms\n", what, (double)(psp_timeNanoSecs() - start) / 1e6);
}

int file_failed(const char *path, const char *what, int status) {
  psp_log_err("%s: %s: %s\n", path, what, strerror((int)psp_errno()));
  return status;
}

/* ---- report ---------------------------------------------------------------------------------- */

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

static int open_log(const Settings *settings) {
  const char *name = settings->value[kLogFile];
  if (strcmp(name, "none") == 0) return 0;
  int is_channel = strcmp(name, "stdout") == 0 || strcmp(name, "stderr") == 0;
  char *path = is_channel ? psp_strdup(name, NULL) : data_path(settings->folder, name, NULL);
  if (path == NULL) return kFailed;
  int result = 0;
  if (psp_log_open(path) != PSP_OKAY) result = file_failed(path, "cannot be written", kFailed);
  psp_freeMem(path, NULL);
  return result;
}

static int load(Database *database, const Settings *settings, const char *target) {
  char *input = data_path(settings->folder, settings->value[kInputFile], database->tag);
  if (input == NULL) return kFailed;
  psp_log("pkgdb: from %s into %s, %s\n", input, target, settings->value[kReportEncoding]);
  uint64_t start = psp_timeNanoSecs();
  int result = read_records(database, input);
  if (result == 0) log_step("records read", start);
  return result;
}

/* While the worker builds the index, this thread makes room for the report, which then waits: it
 * follows the order of the index. A worker that was started is waited for whatever happens. */
static int index_and_report(const Database *database, const Settings *settings) {
  Index index;
  int result = start_index(&index, database, settings);
  if (result == 0) {
    result = move_old_reports(settings, database->tag);
    int built = wait_for_index(&index);
    if (result == 0) result = built;
  }
  if (result == 0) result = make_report(&index, settings, database->tag);
  end_index(&index);
  return result;
}

static int report_in_memory(const Database *database, Settings *settings) {
  int result = move_into_memory(settings);
  if (result == 0) result = keep_packages(database);
  if (result == 0) result = index_and_report(database, settings);
  if (result == 0) result = print_report(settings, database->tag);
  if (result == 0) result = print_matches("libs", "lib*z*");
  return result;
}

static int report_logged(Settings *settings, int in_memory) {
  Database database = {.tag = psp_createTag(0)};
  if (database.tag == PSP_TAG_FAILED) {
    psp_log_err("pkgdb: memory is short\n");
    return kFailed;
  }
  int result = load(&database, settings, in_memory ? "memory" : settings->folder);
  if (result == 0 && in_memory) {
    result = report_in_memory(&database, settings);
  } else if (result == 0) {
    result = index_and_report(&database, settings);
  }
  if (result == 0) result = print_largest(&database);

  /* Records, names, texts: everything that was obtained in the tag goes at once, whatever happened.
   */
  uint64_t heap = heap_in_use();
  psp_freeTagMemory(database.tag, 1);
  if (result == 0 && heap != 0) {
    psp_log("heap: %.1f KiB with the records, %.1f KiB after their tag went\n", (double)heap / 1024,
            (double)heap_in_use() / 1024);
  }
  return result;
}

/* In memory the log is the console alone: the disk will be off. */
static int report(const char *folder, int in_memory, char **arguments) {
  (void)arguments;
  Settings settings;
  int result = in_memory ? 0 : make_folder(folder, 0);
  if (result == 0) result = read_settings(&settings, folder, 0);
  if (result == 0 && !in_memory) result = open_log(&settings);
  if (result != 0) return result;
  result = report_logged(&settings, in_memory);
  psp_log_close();
  return result;
}

/* ---- set ------------------------------------------------------------------------------------- */

static int set(const char *folder, int in_memory, char **arguments) {
  if (in_memory) return kUsage; /* what is set there is gone with the process */
  return change_setting(folder, 0, arguments[0], arguments[1], arguments[2]);
}

/* ---- The command line ------------------------------------------------------------------------ */

typedef struct {
  const char *name;
  int arguments;
  int (*run)(const char *folder, int in_memory, char **arguments);
} Command;

static const Command kCommands[] = {{"report", 0, report}, {"set", 3, set}};

/* Finds the command with its number of arguments; null if there is none. */
static const Command *find_command(int count, char **words) {
  for (size_t i = 0; count > 0 && i < sizeof kCommands / sizeof *kCommands; ++i) {
    const Command *command = &kCommands[i];
    if (strcmp(words[0], command->name) == 0 && count == 1 + command->arguments) return command;
  }
  return NULL;
}

static int usage(void) {
  psp_errPrint(
      "usage: pkgdb [--data FOLDER] [--memory] report\n"
      "       pkgdb [--data FOLDER] set SECTION KEY VALUE");
  return kUsage;
}

int main(int argc, char **argv) {
  const char *folder = kDataFolder;
  int word = 1, in_memory = 0;
  if (argc > 2 && strcmp(argv[1], "--data") == 0 && argv[2][0] != '\0') {
    folder = argv[2];
    word = 3;
  }
  if (argc > word && strcmp(argv[word], "--memory") == 0) {
    in_memory = 1;
    ++word;
  }
  const Command *command = find_command(argc - word, argv + word);
  if (command == NULL) return usage();
  if (psp_init() != PSP_OKAY) {
    psp_errPrint("pkgdb: the library does not start");
    return kFailed;
  }
  int result = command->run(folder, in_memory, argv + word + 1);
  psp_term();
  return result == kUsage ? usage() : result;
}
