/* pkgdb: a tiny package database, made from the records that Debian's package manager keeps.
 *
 *   pkgdb [--data FOLDER] report                  index and report of the installed packages
 *   pkgdb [--data FOLDER] --memory report         the same with all files in memory
 *   pkgdb [--data FOLDER] set SECTION KEY VALUE   changes a setting in FOLDER\pkgdb.ini
 *   pkgdb [--data FOLDER] query TEXT              the packages that the text asks for
 *   pkgdb [--data FOLDER] serve                   answers queries until interrupted
 *   pkgdb [--data FOLDER] ask TEXT                asks the server
 *   pkgdb [--data FOLDER] install PROGRAM         has the system start the server: this program
 *   pkgdb uninstall                               and takes that back
 *
 * It shows how the families of psp work together. Read on here, and then, in this order:
 *
 *   main.c         start and stop, the log, tags
 *   settings.c     INI configuration, paths
 *   packages.c     text streams, tagged memory
 *   catalog.c      threads, a queue between them, gates
 *   index.c        file handles
 *   report.c       UTF-16 text, iteration over a folder, renames
 *   memory.c       the in-memory file store
 *   query_lex.c    text in pieces
 *   query_parse.c  the parser engine, which puts them together
 *   query.c        what is asked for
 *   wire.c         typed buffers
 *   pipe.c         their transports
 *   serve.c        a service, interrupts, sharing modes
 *   ask.c          its client
 *
 * Ends with 0; 2 for a wrong call, 3 if the input cannot be opened, 4 if it is not what it should
 * be, 5 if memory is short, a result cannot be written or did not come back as it was written, 6
 * for a setting and 7 for a query that is not what it should be, 8 if no server answers. That a
 * last piece of output did not go out is told on the error channel alone: a flush has no result. */
#include <errno.h>
#include <stdlib.h>
#include <string.h>
#if defined(__GLIBC__)
#include <malloc.h>
#endif

#include "pkgdb.h"

static const char kDataFolder[] = "pkgdb-out";
static Settings settings; /* too large for a small stack */

void log_step(const char *what, uint64_t start) {
  psp_log("%-34s %8.1f ms\n", what, (double)(psp_timeNanoSecs() - start) / 1e6);
}

psp_tag *make_tag(void) {
  psp_tag *tag = psp_createTag(0);
  if (tag == PSP_TAG_FAILED) psp_log_err("memory is short\n");
  return tag;
}

void make_one_line(char *text) {
  for (; *text != '\0'; ++text) {
    if ((unsigned char)*text < ' ' || *text == '\x7f') *text = ' ';
  }
}

int file_failed(const char *path, const char *what, int status) {
  int error = (int)psp_errno();
  psp_log_err("%s: %s: %s\n", path, what, strerror(error));
  return error == ENOMEM ? kFailed : status;
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

int open_log(const Settings *settings, int setting) {
  const char *name = settings->value[setting];
  if (strcmp(name, "none") == 0) return 0;
  int is_channel = strcmp(name, "stdout") == 0 || strcmp(name, "stderr") == 0;
  char *path = is_channel ? psp_strdup(name, NULL) : data_path(settings->folder, name, NULL);
  if (path == NULL) return kFailed;
  int result = 0;
  if (psp_log_open(path) != PSP_OKAY) result = file_failed(path, "cannot be written", kFailed);
  psp_freeMem(path, NULL);
  return result;
}

/* While the threads read and index, this one makes room for the report. */
static int make_catalog(Catalog *catalog, const Settings *settings, const char *input,
                        const char *index, psp_tag *tag) {
  int result = start_catalog(catalog, input, index, settings->mode);
  if (result != 0) return result;
  result = move_old_reports(settings, tag);
  int built = wait_for_catalog(catalog); /* whatever happened: the threads use what will go */
  return built != 0 ? built : result;
}

/* The disk is needed no more: nothing may reach it by mistake from here on. */
static int report_in_memory(const Catalog *catalog, const Settings *settings, psp_tag *tag) {
  psp_nodisk();
  int result = keep_packages(catalog, tag);
  if (result == 0) result = make_report(catalog, settings, tag);
  if (result == 0) result = print_report(settings, tag);
  if (result == 0) result = print_matches("libs", "lib*z*");
  return result;
}

static int report_in_tag(Settings *settings, int in_memory, psp_tag *tag) {
  char *input = data_path(settings->folder, settings->value[kInputFile], tag);
  if (input == NULL) return kFailed;
  psp_log("pkgdb: from %s into %s, %s\n", input, in_memory ? "memory" : settings->folder,
          settings->value[kReportEncoding]);
  int result = in_memory ? move_into_memory(settings) : 0;
  char *index = data_path(settings->folder, "packages.idx", tag);
  if (result != 0 || index == NULL) return result != 0 ? result : kFailed;
  Catalog catalog;
  result = make_catalog(&catalog, settings, input, index, tag);
  if (result == 0) {
    result = in_memory ? report_in_memory(&catalog, settings, tag)
                       : make_report(&catalog, settings, tag);
  }
  if (result == 0) result = print_largest(&catalog, tag);

  /* Records, names, texts: everything that was obtained in a tag goes at once, whatever happened.
   */
  uint64_t heap = heap_in_use();
  end_catalog(&catalog);
  if (result == 0 && heap != 0) {
    psp_log("heap: %.1f KiB with the records, %.1f KiB after their tags went\n",
            (double)heap / 1024, (double)heap_in_use() / 1024);
  }
  return result;
}

/* In memory the log is the console alone: the disk will be off. */
static int report(const char *folder, int in_memory, char **arguments) {
  (void)arguments;
  int result = in_memory ? 0 : make_folder(folder, 0);
  if (result == 0) result = read_settings(&settings, folder, 0);
  if (result == 0 && !in_memory) result = open_log(&settings, kLogFile);
  if (result != 0) return result;
  psp_tag *tag = make_tag();
  result = tag != PSP_TAG_FAILED ? report_in_tag(&settings, in_memory, tag) : kFailed;
  psp_freeTagMemory(tag, 1);
  psp_log_close();
  return result;
}

/* ---- set ------------------------------------------------------------------------------------- */

static int set(const char *folder, int in_memory, char **arguments) {
  if (in_memory) return kUsage; /* what is set there is gone with the process */
  return change_setting(folder, 0, arguments[0], arguments[1], arguments[2]);
}

/* ---- query ----------------------------------------------------------------------------------- */

static int query_in_tag(const char *text, psp_tag *tag) {
  char *input = data_path(settings.folder, settings.value[kInputFile], tag);
  if (input == NULL) return kFailed;
  Catalog catalog;
  Answer answer;
  int result = load_catalog(&catalog, input);
  if (result == 0) {
    answer_query(text, &catalog, tag, &answer);
    result = print_answer(&answer);
  }
  end_catalog(&catalog);
  return result;
}

static int query(const char *folder, int in_memory, char **arguments) {
  if (in_memory) return kUsage;
  int result = read_settings(&settings, folder, 0);
  if (result != 0) return result;
  psp_tag *tag = make_tag();
  result = tag != PSP_TAG_FAILED ? query_in_tag(arguments[0], tag) : kFailed;
  psp_freeTagMemory(tag, 1);
  return result;
}

/* ---- serve and ask --------------------------------------------------------------------------- */

static int serve_command(const char *folder, int in_memory, char **arguments) {
  (void)arguments;
  if (in_memory) return kUsage;
  int result = make_folder(folder, 0);
  if (result == 0) result = read_settings(&settings, folder, 0);
  return result == 0 ? serve(&settings) : result;
}

static int ask_command(const char *folder, int in_memory, char **arguments) {
  return in_memory ? kUsage : ask(folder, arguments[0]);
}

static int install(const char *folder, int in_memory, char **arguments) {
  return in_memory ? kUsage : install_service(folder, arguments[0]);
}

static int uninstall(const char *folder, int in_memory, char **arguments) {
  (void)folder, (void)arguments;
  return in_memory ? kUsage : uninstall_service();
}

/* ---- The command line ------------------------------------------------------------------------ */

typedef struct {
  const char *name;
  int arguments;
  int (*run)(const char *folder, int in_memory, char **arguments);
} Command;

static const Command kCommands[] = {{"report", 0, report},      {"set", 3, set},
                                    {"query", 1, query},        {"serve", 0, serve_command},
                                    {"ask", 1, ask_command},    {"install", 1, install},
                                    {"uninstall", 0, uninstall}};

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
      "       pkgdb [--data FOLDER] set SECTION KEY VALUE\n"
      "       pkgdb [--data FOLDER] query TEXT\n"
      "       pkgdb [--data FOLDER] serve\n"
      "       pkgdb [--data FOLDER] ask TEXT\n"
      "       pkgdb [--data FOLDER] install PROGRAM\n"
      "       pkgdb uninstall");
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
  int result = kFailed;
  if (psp_queueInit(0) == PSP_OKAY) {
    result = command->run(folder, in_memory, argv + word + 1);
    psp_queueTerm(1);
  }
  psp_term();
  return result == kUsage ? usage() : result;
}
