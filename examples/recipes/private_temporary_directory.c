/* A private temporary directory: one that nobody else had before, and that goes with all its files.
 * Its permissions are those that the process gives every new directory: where others must not read
 * it, the process sets its file mask (umask) first, or VKD_TMPDIR to a place of its own. */
#include <psp.h>
#include <string.h>

/* psp_fileCreateTmpName only makes a name; the creation tells whether somebody has it already. */
static char *create_directory(void) {
  static uint32_t counter; /* a part of the names; one thread at a time */
  for (;;) {
    char *name = psp_fileCreateTmpName(&counter, "session", "dir", NULL);
    psp_status status = name == NULL ? PSP_NOMEMORY : psp_dirCreate(name);
    if (status == PSP_OKAY) return name;
    psp_freeMem(name, NULL);
    if (status != PSP_EXISTS) return NULL;
  }
}

/* A directory with directories in it stays: the last step tells. */
static psp_status remove_directory(const char *directory) {
  psp_pathIter *entries = psp_pathOpen(directory, "*");
  const char *entry;
  uint32_t is_directory;
  while (entries != NULL && (entry = psp_pathNext(entries, &is_directory)) != NULL) {
    if (is_directory) continue;
    char *name = psp_makeString("%s\\%s", directory, entry);
    if (name != NULL) psp_fileRemove(name);
    psp_freeMem(name, NULL);
  }
  psp_pathClose(entries);
  return psp_dirRemove(directory);
}

int main(void) {
  if (psp_init() != PSP_OKAY) return 1;
  char *directory = create_directory();
  char *name = directory == NULL ? NULL : psp_makeString("%s\\sort.run", directory);
  psp_stream *run = name == NULL ? NULL : psp_fopen(name, "w", 1);
  int failed = psp_fputs("first run\n", run) < 0; /* a null stream fails, too */
  psp_fclose(run);
  if (failed) psp_log_err("temporary file: %s\n", strerror((int)psp_errno()));
  if (!failed) psp_printf("a file of %lld bytes\n", psp_fileLengthStat(name, 0));
  if (directory != NULL && remove_directory(directory) != PSP_OKAY) failed = 1;
  if (!failed) psp_printf("still there: %d\n", psp_fileValidate(directory));
  psp_freeMem(name, NULL);
  psp_freeMem(directory, NULL);
  psp_term();
  return failed;
}
