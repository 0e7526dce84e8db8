/* What the parts of pkgdb share: the exit statuses, the records, and the functions of each file.
 *
 * Functions that can fail give 0 or the exit status, and have logged why. */
#ifndef PKGDB_H
#define PKGDB_H

#include <psp.h>

enum { kUsage = 2, kNoInput = 3, kBadInput = 4, kFailed = 5, kBadSetting = 6 };

/* ---- settings.c: what pkgdb.ini says --------------------------------------------------------- */

enum { kInputFile, kReportEncoding, kLogFile, kSettingCount };
enum { kSettingBytes = 4096 };

typedef struct {
  const char *folder; /* holds pkgdb.ini and everything that pkgdb writes */
  uint16_t mode;      /* where it lies: 0 on the disk, PSP_FILE_MEMORY in the in-memory store */
  char value[kSettingCount][kSettingBytes];
} Settings;

/* Makes sure that a folder exists. In the store folders come with the files in them. */
int make_folder(const char *folder, uint16_t mode);

/* The name of a file of the data folder, in the tag; a fully qualified name stays what it is.
 * Null when memory is short. */
char *data_path(const char *folder, const char *name, psp_tag *tag);

/* Settings that the file does not name, or all if there is no file, have their defaults. */
int read_settings(Settings *settings, const char *folder, uint16_t mode);

int change_setting(const char *folder, uint16_t mode, const char *section, const char *key,
                   const char *value);

/* ---- packages.c: the records as read --------------------------------------------------------- */

typedef struct {
  char *name;
  char *version; /* this and the next may be null */
  char *section;
  char *summary; /* the description's first line; may be null */
  uint32_t kib;  /* installed size */
} Package;

typedef struct {
  psp_tag *tag; /* owns everything below, and every string of every package; the main thread's */
  Package *packages;
  uint32_t count;
  uint32_t capacity;
  uint32_t lines;
  uint32_t not_installed; /* records of packages that were removed */
} Database;

/* Adds the records of the installed packages to an empty database that has its tag. */
int read_records(Database *database, const char *path);

const char *or_empty(const char *text);

/* ---- index.c: the index, built by a thread of its own ---------------------------------------- */

typedef struct {
  const Database *database; /* nobody changes it while the worker runs */
  uint16_t mode;            /* of the file */
  psp_tag *tag;             /* the worker's while it runs */
  psp_sync built;           /* a gate that is closed until the worker is done with all this */
  char *path;
  const Package **order; /* all packages by name */
  int result;            /* of the worker, like all above to be looked at behind the gate */
} Index;

/* Starts building. Only after a success wait_for_index is to be called; end_index always. */
int start_index(Index *index, const Database *database, const Settings *settings);

/* Waits until the index is built, and gives the worker's result. */
int wait_for_index(Index *index);

void end_index(Index *index);

/* ---- report.c: the report as a file and the table on the console ----------------------------- */

/* Moves all reports of the data folder into its folder of old reports. */
int move_old_reports(const Settings *settings, psp_tag *tag);

/* The report's name, in the tag. Null when memory is short. */
char *report_path(const Settings *settings, psp_tag *tag);

/* Writes the report in the order of the index and reads it back. */
int make_report(const Index *index, const Settings *settings, psp_tag *tag);

int print_largest(const Database *database);

/* ---- memory.c: everything in the in-memory store --------------------------------------------- */

/* Turns the disk off. From here on the data folder is one of the store, with its own pkgdb.ini that
 * says what the settings say. */
int move_into_memory(Settings *settings);

/* Keeps each package as a file in a folder of its section, and lists some by a pattern. */
int keep_packages(const Database *database);
int print_matches(const char *section, const char *pattern);

/* Prints the report's first lines. */
int print_report(const Settings *settings, psp_tag *tag);

/* ---- main.c ---------------------------------------------------------------------------------- */

/* Logs how long a step took that started at this psp_timeNanoSecs. */
void log_step(const char *what, uint64_t start);

/* Logs what could not be done with a file and the platform's reason; gives the status. */
int file_failed(const char *path, const char *what, int status);

#endif
