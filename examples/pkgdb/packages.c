/* Reading the package records: a text stream, line by line, into tagged memory.
 *
 * The status file of Debian's package manager holds a record ("stanza") for each package: lines
 * "Field: value", some with continuation lines that start with a blank, and an empty line at the
 * end. All strings and the array of the packages belong to the database's tag and go with it. */
#include <errno.h>
#include <stdlib.h>
#include <string.h>

#include "pkgdb.h"

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

int read_records(Database *database, const char *path) {
  psp_stream *stream = psp_fopen(path, "r", 0);
  if (stream == NULL) return file_failed(path, "cannot be read", kNoInput);
  Stanza stanza = {0};
  int result = 0;
  char *line = NULL; /* grows as lines want it; belongs to the default tag */
  uint32_t size = 0;
  while (result == 0 && psp_fGetLine(stream, &line, &size) != NULL) {
    ++database->lines;
    line[strcspn(line, "\n")] = '\0';
    result = take_line(database, &stanza, path, line);
    line[0] = '\0'; /* so that what stands here after the last call is its doing */
  }
  /* No line is the end, or memory was short for the rest of one, or a byte is no text. */
  if (result == 0 && ((line != NULL && line[0] != '\0') || psp_fgetc(stream) != -1)) {
    psp_log_err("%s:%u: cannot be read on\n", path, database->lines);
    result = kBadInput;
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

const char *or_empty(const char *text) { return text != NULL ? text : ""; }
