/* What the parts of pkgdb share: the exit statuses, the records, and the functions of each file.
 *
 * Functions that can fail give 0 or the exit status, and have logged why. */
#ifndef PKGDB_H
#define PKGDB_H

#include <psp.h>

enum {
  kUsage = 2,
  kNoInput = 3,
  kBadInput = 4,
  kFailed = 5,
  kBadSetting = 6,
  kBadQuery = 7,
  kNoServer = 8
};

/* ---- settings.c: what pkgdb.ini says --------------------------------------------------------- */

enum { kInputFile, kReportEncoding, kLogFile, kServeLog, kSettingCount };
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
  const char *name;
  const char *version; /* this and the next two may be null */
  const char *section;
  const char *summary; /* the description's first line */
  uint32_t kib;        /* installed size */
  uint32_t number;     /* place among the packages as read, from 0 */
} Package;

typedef struct {
  const char *path;
  psp_tag *tag;        /* owns every package and its strings; the reader's until it has ended */
  psp_queue *packages; /* a message for each package, and one at the end */
  psp_sync ended;      /* a gate that is closed until the reader is done with all this */
  int is_logged;
  uint32_t count; /* of packages sent */
  uint32_t lines;
  uint32_t not_installed; /* records of packages that were removed */
} Reader;

enum { kPackageMessage = 1, kEndMessage = 2 }; /* data: the package; the result, extra: the count */

/* Sends the packages that are installed. */
int read_records(Reader *reader);

const char *or_empty(const char *text);

/* ---- catalog.c: the packages by name, made by two threads ------------------------------------ */

typedef struct {
  Reader reader;
  psp_tag *tag; /* of the array; the indexer's while it runs */
  const Package **packages;
  uint32_t count;
  uint32_t capacity;
  const char *index_path; /* null: no index is written */
  uint16_t mode;          /* of the index */
  psp_sync built;         /* a gate that is closed until both threads are done with all this */
  int result;             /* like all above to be looked at behind the gate */
} Catalog;

/* Starts reading. Only after a success wait_for_catalog is to be called; end_catalog always. The
 * names must last as long as the catalog. */
int start_catalog(Catalog *catalog, const char *input, const char *index_path, uint16_t mode);

/* Waits until the catalog is made, and gives the result of both threads. */
int wait_for_catalog(const Catalog *catalog);

/* Both in one, without an index. */
int load_catalog(Catalog *catalog, const char *input);

void end_catalog(Catalog *catalog);

/* ---- index.c: the index file ----------------------------------------------------------------- */

int write_index(const Catalog *catalog);
int check_index(const Catalog *catalog);

/* ---- report.c: the report as a file and the table on the console ----------------------------- */

/* Moves all reports of the data folder into its folder of old reports. */
int move_old_reports(const Settings *settings, psp_tag *tag);

/* The report's name, in the tag. Null when memory is short. */
char *report_path(const Settings *settings, psp_tag *tag);

/* Writes the report in the order of the catalog and reads it back. */
int make_report(const Catalog *catalog, const Settings *settings, psp_tag *tag);

/* Tables of packages. Give 0 if the console fails. */
int print_heading(const char *title);
int print_package(const Package *package);
int print_largest(const Catalog *catalog, psp_tag *tag);

/* ---- query.c, with query.h: questions -------------------------------------------------------- */

enum { kMostQueryBytes = 3000, kMessageBytes = 256 };

typedef struct {
  int result; /* 0; else the exit status, and the message says why */
  char message[kMessageBytes];
  const Package **packages;
  uint32_t count;
} Answer;

/* Answers from the catalog; everything made for it is in the tag. Gives the answer's result. */
int answer_query(const char *text, const Catalog *catalog, psp_tag *tag, Answer *answer);

/* Prints the packages or logs the message. Gives the answer's result. */
int print_answer(const Answer *answer);

/* ---- pipe.c: named pipes as transports ------------------------------------------------------- */

typedef struct {
  int descriptor;    /* -1: closed */
  uint32_t patience; /* milliseconds that the other end may take for the next bytes */
} Pipe;

/* One that exists is taken as it is. */
int make_pipe(const char *path);

/* Give 0 on failure; the reason is in psp_errno. */
int open_for_reading(Pipe *pipe, const char *path, uint32_t patience);
int open_for_writing(Pipe *pipe, const char *path, uint32_t patience);
void close_pipe(Pipe *pipe);

/* Whether it is a pipe that nobody reads. */
int is_lost_pipe(const char *path);

/* Transports of typed buffers; the context is a Pipe. */
int32_t read_pipe(void *context, void *buffer, uint32_t capacity, uint32_t *filled);
int32_t read_pipe_timed(void *context, void *buffer, uint32_t capacity, uint32_t *filled,
                        uint32_t milliseconds);
int32_t write_pipe(void *context, const void *data, uint32_t count);

/* ---- wire.c: requests and answers in typed buffers ------------------------------------------- */

typedef struct {
  int has_rubbish; /* bytes that are no request came before it, or instead of it */
  int32_t client;  /* process identifier */
  char query[kMostQueryBytes + 1];
} Request;

/* Where requests and answers go; in the tag, null when memory is short. */
char *request_pipe(const char *folder, psp_tag *tag);
char *reply_pipe(const char *folder, int32_t client, psp_tag *tag);

psp_status put_request(psp_outputBuff *out, const char *query);

/* PSP_TIMEOUT if none has begun within this time, or rubbish has come; else the pipe is broken. */
psp_status get_request(psp_inputBuff *in, uint32_t milliseconds, Request *request);

psp_status put_answer(psp_outputBuff *out, const Answer *answer);

/* Everything that arrives is in the tag. */
psp_status get_answer(psp_inputBuff *in, psp_tag *tag, Answer *answer);

/* ---- serve.c: the server --------------------------------------------------------------------- */

/* Serves until stopped. */
int serve(Settings *settings);
int install_service(const char *folder, const char *program);
int uninstall_service(void);

/* ---- ask.c: its client ----------------------------------------------------------------------- */

/* Asks the server of the data folder and prints its answer. */
int ask(const char *folder, const char *query);

/* ---- memory.c: everything in the in-memory store --------------------------------------------- */

/* From here on the data folder is one of the store, with its own pkgdb.ini that says what the
 * settings say. */
int move_into_memory(Settings *settings);

/* Keeps each package as a file in a folder of its section, and lists some by a pattern. */
int keep_packages(const Catalog *catalog, psp_tag *tag);
int print_matches(const char *section, const char *pattern);

/* Prints the report's first lines. */
int print_report(const Settings *settings, psp_tag *tag);

/* ---- main.c ---------------------------------------------------------------------------------- */

/* Opens the log that a setting names. */
int open_log(const Settings *settings, int setting);

/* Logs how long a step took that started at this psp_timeNanoSecs. */
void log_step(const char *what, uint64_t start);

/* A tag for one thread; PSP_TAG_FAILED, and logged, when memory is short. */
psp_tag *make_tag(void);

/* Makes blanks of line feeds and the like: a message is one line, whatever text it shows. */
void make_one_line(char *text);

/* Logs what could not be done with a file and the platform's reason; gives the status, or kFailed
 * where memory is short. */
int file_failed(const char *path, const char *what, int status);

#endif
