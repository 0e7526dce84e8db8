/* Reading the package records: a text stream, line by line, into tagged memory and a queue.
 *
 * The status file of Debian's package manager holds a record ("stanza") for each package: lines
 * "Field: value", some with continuation lines that start with a blank, and an empty line at the
 * end. All packages and their strings belong to the reader's tag and go with it. */
#include <errno.h>
#include <stdlib.h>
#include <string.h>

#include "pkgdb.h"

/* The stanza under way. Its strings are in the reader's tag already. */
typedef struct {
  Package package;
  int has_fields;
  int installed;
} Stanza;

static int send_package(Reader *reader, const Package *read) {
  Package *package = psp_memdup(read, sizeof *read, reader->tag);
  if (package == NULL) return kFailed; /* the library has logged why */
  package->number = reader->count++;
  psp_queueWrite(reader->packages, (psp_word)package, 0, kPackageMessage, 0);
  return 0;
}

static int finish_stanza(Reader *reader, Stanza *stanza) {
  int result = 0;
  if (stanza->has_fields && stanza->package.name == NULL) {
    psp_log_err("%s:%u: the record that ends here has no Package field\n", reader->path,
                reader->lines);
    return kBadInput;
  }
  if (stanza->has_fields && stanza->installed) {
    result = send_package(reader, &stanza->package);
  } else if (stanza->has_fields) {
    ++reader->not_installed;
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

static int take_field(Reader *reader, Stanza *stanza, const char *field, const char *value) {
  Package *package = &stanza->package;
  const char **text = NULL;
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
    psp_log_err("%s:%u: \"%s\" is no size\n", reader->path, reader->lines, value);
    return kBadInput;
  }
  if (text == NULL) return 0;
  *text = psp_strdup(value, reader->tag);
  return *text != NULL ? 0 : kFailed;
}

/* One line without its line feed: "Field: value", a continuation, or the end of a record. */
static int take_line(Reader *reader, Stanza *stanza, char *line) {
  if (line[0] == '\0') return finish_stanza(reader, stanza);
  if (line[0] == ' ' || line[0] == '\t') return 0;
  char *colon = strchr(line, ':');
  if (colon == NULL || colon == line) {
    psp_log_err("%s:%u: neither a field nor the rest of one\n", reader->path, reader->lines);
    return kBadInput;
  }
  *colon = '\0';
  return take_field(reader, stanza, line, colon + 1 + strspn(colon + 1, " \t"));
}

int read_records(Reader *reader) {
  psp_stream *stream = psp_fopen(reader->path, "r", 0);
  if (stream == NULL) return file_failed(reader->path, "cannot be read", kNoInput);
  Stanza stanza = {0};
  int result = 0;
  char *line = NULL; /* grows as lines want it; belongs to the default tag */
  uint32_t size = 0;
  while (result == 0 && psp_fGetLine(stream, &line, &size) != NULL) {
    ++reader->lines;
    line[strcspn(line, "\n")] = '\0';
    result = take_line(reader, &stanza, line);
    line[0] = '\0'; /* so that what stands here after the last call is its doing */
  }
  /* No line is the end, or memory was short for the rest of one, or a byte is no text. */
  if (result == 0 && ((line != NULL && line[0] != '\0') || psp_fgetc(stream) != -1)) {
    psp_log_err("%s:%u: cannot be read on\n", reader->path, reader->lines);
    result = kBadInput;
  }
  if (result == 0) result = finish_stanza(reader, &stanza);
  if (result == 0 && reader->count == 0) {
    psp_log_err("%s: no record of an installed package\n", reader->path);
    result = kBadInput;
  }
  psp_freeMem(line, NULL);
  psp_fclose(stream);
  return result;
}

const char *or_empty(const char *text) { return text != NULL ? text : ""; }
