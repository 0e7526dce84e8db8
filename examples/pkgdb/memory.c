/* Everything in the in-memory file store: settings, index, report, and a file for each package.
 *
 * A mode word with PSP_FILE_MEMORY is all that it takes. With the disk turned off nothing reaches
 * it by mistake: an open without that bit fails. The store goes with the process. */
#include <string.h>

#include "pkgdb.h"

enum { kReportLines = 3 };

static const char kMemoryFolder[] = "\\pkgdb";
static const char kPackages[] = "\\packages";

int move_into_memory(Settings *settings) {
  char encoding[kSettingBytes];
  psp_strncpyZ(encoding, settings->value[kReportEncoding], sizeof encoding);
  int result = change_setting(kMemoryFolder, PSP_FILE_MEMORY, "report", "encoding", encoding);
  return result != 0 ? result : read_settings(settings, kMemoryFolder, PSP_FILE_MEMORY);
}

/* ---- Packages as files ----------------------------------------------------------------------- */

/* \packages\SECTION\NAME; folders come into being with the first file in them. */
static int keep_package(const Package *package, psp_tag *tag) {
  const char *section = package->section != NULL ? package->section : "none";
  char *path = psp_makeStr(tag, "%s\\%s\\%s", kPackages, section, package->name);
  char *text = psp_makeStr(tag, "%s, %u KiB: %s", or_empty(package->version), package->kib,
                           or_empty(package->summary));
  PSP_FH file = NULL;
  if (path != NULL && text != NULL) {
    file = psp_fileOpen(path, PSP_OPEN_WRITE | PSP_OPEN_TRUNCATE, PSP_FILE_MEMORY);
  }
  uint32_t length = text != NULL ? (uint32_t)strlen(text) : 0;
  int kept = file != NULL && psp_fileWrite(file, text, length) == (int32_t)length;
  psp_fileClose(file);
  if (!kept) psp_log_err("%s: memory is short for %s\n", kPackages, package->name);
  psp_freeMem(text, tag);
  psp_freeMem(path, tag);
  return kept ? 0 : kFailed;
}

int keep_packages(const Catalog *catalog, psp_tag *tag) {
  uint64_t start = psp_timeNanoSecs();
  int result = 0;
  for (uint32_t i = 0; i < catalog->count && result == 0; ++i) {
    result = keep_package(catalog->packages[i], tag);
  }
  if (result == 0) log_step("packages kept as files", start);
  return result;
}

/* The file's text, in the caller's buffer. */
static int read_text(const char *folder, const char *name, char *text, uint32_t size) {
  char *path = psp_makeStr(NULL, "%s\\%s", folder, name);
  PSP_FH file = path != NULL ? psp_fileOpen(path, PSP_OPEN_READ, PSP_FILE_MEMORY) : NULL;
  int32_t length = file != NULL ? psp_fileRead(file, text, size - 1) : -1;
  psp_fileClose(file);
  psp_freeMem(path, NULL);
  if (length < 0) return kFailed;
  text[length] = '\0';
  return 0;
}

int print_matches(const char *section, const char *pattern) {
  char text[200];
  char *folder = psp_makeStr(NULL, "%s\\%s", kPackages, section);
  if (folder == NULL) return kFailed;
  psp_pathIter *names = psp_pathOpenEx(folder, PSP_FILE_MEMORY, pattern);
  const char *name;
  uint32_t is_folder = 0;
  int result = 0;
  psp_printf("\n%s\\%s:\n", folder, pattern);
  while (result == 0 && names != NULL && (name = psp_pathNext(names, &is_folder)) != NULL) {
    result = read_text(folder, name, text, sizeof text);
    if (result == 0) psp_printf("%-32s %s\n", name, text);
  }
  if (names != NULL) psp_pathClose(names);
  psp_freeMem(folder, NULL);
  return result;
}

/* ---- The report ------------------------------------------------------------------------------ */

int print_report(const Settings *settings, psp_tag *tag) {
  char *path = report_path(settings, tag);
  psp_stream *stream = path != NULL ? psp_fopenEx(path, "r", 0, PSP_FILE_MEMORY) : NULL;
  if (stream == NULL) return file_failed(path != NULL ? path : "the report", "is gone", kFailed);
  char *line = NULL;
  uint32_t size = 0;
  psp_printf("\n%s, %lld bytes, begins:\n", path,
             (long long)psp_fileLengthStat(path, PSP_FILE_MEMORY));
  for (int i = 0; i < kReportLines && psp_fGetLine(stream, &line, &size) != NULL; ++i) {
    psp_printf("%s", line);
  }
  psp_freeMem(line, NULL);
  psp_fclose(stream);
  psp_freeMem(path, tag);
  return 0;
}
