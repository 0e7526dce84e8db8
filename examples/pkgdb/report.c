/* The report: a text file of all packages, in UTF-8 or UTF-16 as the settings say, and the table of
 * the largest on the console.
 *
 * An old report is never overwritten: before a new one is written, all of them are moved into the
 * folder reports.old, where each gets the next free number, "packages-utf16.0001.txt". */
#include <stdlib.h>
#include <string.h>

#include "pkgdb.h"

enum { kLargest = 10, kMostOldReports = 9999 };

/* ---- Old reports ----------------------------------------------------------------------------- */

static const char kOldFolder[] = "reports.old";
static const char kEnding[] = ".txt";
static const char kPattern[] = "packages-*.txt";

/* Gives the report the first free number; trying them in turn costs a system call each. A rename
 * never replaces a file, not even one that appears this very moment. */
static int move_report(const Settings *settings, const char *name, psp_tag *tag) {
  int stem = (int)(strlen(name) - strlen(kEnding)), moved = 0, taken = 1;
  char *report = data_path(settings->folder, name, tag);
  if (report == NULL) return kFailed;
  for (uint32_t number = 1; taken && number <= kMostOldReports; ++number) {
    char *place = psp_makeStr(tag, "%s\\%s\\%.*s.%04u%s", settings->folder, kOldFolder, stem, name,
                              number, kEnding);
    if (place == NULL) return kFailed;
    moved = psp_fileRename(report, place) == PSP_OKAY;
    uint32_t error = psp_errno();
    taken = !moved && psp_fileValidate(place);
    if (!moved && !taken) psp_log_err("%s: %s\n", place, strerror((int)error));
    psp_freeMem(place, tag);
  }
  if (taken) psp_log_err("%s: all %d numbers are taken\n", kOldFolder, kMostOldReports);
  psp_freeMem(report, tag);
  return moved ? 0 : kFailed;
}

int move_old_reports(const Settings *settings, psp_tag *tag) {
  if (settings->mode == PSP_FILE_MEMORY) return 0; /* a new store holds none */
  psp_pathIter *reports = psp_pathOpen(settings->folder, kPattern);
  if (reports == NULL) return 0; /* none, or the folder cannot be read: make_report looks again */
  char *old_folder = data_path(settings->folder, kOldFolder, tag);
  int result = old_folder != NULL ? make_folder(old_folder, settings->mode) : kFailed;
  uint32_t is_folder = 0, count = 0;
  const char *name;
  while (result == 0 && (name = psp_pathNext(reports, &is_folder)) != NULL) {
    if (is_folder) continue;
    result = move_report(settings, name, tag);
    ++count;
  }
  psp_pathClose(reports);
  if (result == 0) psp_log("old reports moved to %s: %u\n", old_folder, count);
  psp_freeMem(old_folder, tag);
  return result;
}

/* ---- The new report -------------------------------------------------------------------------- */

static char *report_line(const Package *package, psp_tag *tag) {
  return psp_makeStr(tag, "%s\t%s\t%s\t%u\t%s\n", package->name, or_empty(package->version),
                     or_empty(package->section), package->kib, or_empty(package->summary));
}

/* width: bytes of a unit; with two the stream writes UTF-16. */
static int write_report(const Catalog *catalog, const char *path, uint32_t width, psp_tag *tag) {
  psp_stream *stream = psp_fopenEx(path, "w", width, catalog->mode);
  int written = stream != NULL;
  for (uint32_t i = 0; written && i < catalog->count; ++i) {
    char *line = report_line(catalog->packages[i], tag);
    written = line != NULL && psp_fputs(line, stream) >= 0;
    psp_freeMem(line, tag);
  }
  int result = written ? 0 : file_failed(path, "cannot be written", kFailed);
  psp_fclose(stream);
  return result;
}

/* The stream finds out by the mark that a file is UTF-16, and gives UTF-8. What the close could not
 * write shows here. */
static int check_report(const Catalog *catalog, const char *path, psp_tag *tag) {
  psp_stream *stream = psp_fopenEx(path, "r", 0, catalog->mode);
  char *found = NULL;
  uint32_t size = 0, lines = 0, count = catalog->count;
  int same = stream != NULL;
  while (same && psp_fGetLine(stream, &found, &size) != NULL) {
    char *expected = lines < count ? report_line(catalog->packages[lines], tag) : NULL;
    same = expected != NULL && strcmp(expected, found) == 0;
    psp_freeMem(expected, tag);
    ++lines;
  }
  same = same && lines == count;
  if (!same) psp_log_err("%s: line %u is not what was written\n", path, lines);
  psp_freeMem(found, NULL);
  psp_fclose(stream);
  return same ? 0 : kFailed;
}

static int is_wide(const Settings *settings) {
  return strcmp(settings->value[kReportEncoding], "utf-16") == 0;
}

char *report_path(const Settings *settings, psp_tag *tag) {
  const char *name = is_wide(settings) ? "packages-utf16.txt" : "packages-utf8.txt";
  return data_path(settings->folder, name, tag);
}

int make_report(const Catalog *catalog, const Settings *settings, psp_tag *tag) {
  char *path = report_path(settings, tag);
  if (path == NULL) return kFailed;
  if (psp_fileValidateEx(path, catalog->mode, NULL)) {
    psp_log_err("%s: is in the way and could not be moved\n", path);
    return kFailed;
  }
  uint64_t start = psp_timeNanoSecs();
  int result = write_report(catalog, path, is_wide(settings) ? 2 : 1, tag);
  if (result == 0) {
    log_step("report written", start);
    start = psp_timeNanoSecs();
    result = check_report(catalog, path, tag);
  }
  if (result == 0) log_step("report read back, the same", start);
  psp_freeMem(path, tag);
  return result;
}

/* ---- The table ------------------------------------------------------------------------------- */

int print_heading(const char *title) {
  return psp_printf("%-32s %10s  %-12s %s\n", title, "KiB", "section", "summary") >= 0;
}

int print_package(const Package *package) {
  return psp_printf("%-32s %10u  %-12s %s\n", package->name, package->kib,
                    or_empty(package->section), or_empty(package->summary)) >= 0;
}

static int larger_first(const void *left, const void *right) {
  const Package *a = *(const Package *const *)left, *b = *(const Package *const *)right;
  if (a->kib != b->kib) return a->kib < b->kib ? 1 : -1;
  return strcmp(a->name, b->name);
}

int print_largest(const Catalog *catalog, psp_tag *tag) {
  const Package **order = psp_memdup(catalog->packages, catalog->count * sizeof *order, tag);
  if (order == NULL) return kFailed;
  uint64_t total_kib = 0;
  for (uint32_t i = 0; i < catalog->count; ++i) total_kib += order[i]->kib;
  qsort(order, catalog->count, sizeof *order, larger_first);
  psp_printf("\n%u packages installed, %u removed, %.1f MiB, %u lines read\n\n", catalog->count,
             catalog->reader.not_installed, (double)total_kib / 1024, catalog->reader.lines);
  int printed = print_heading("largest packages");
  for (uint32_t i = 0; printed && i < catalog->count && i < kLargest; ++i) {
    printed = print_package(order[i]);
  }
  printed = printed && psp_printf("\n") >= 0;
  psp_freeMem(order, tag);
  return printed ? 0 : kFailed;
}
