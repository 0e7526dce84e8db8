/* A private temporary directory: one that nobody else had before, and that goes with everything in
 * it. Its permissions are those that the process gives every new directory: where others must not
 * read it, the process sets its file mask (umask) first, or VKD_TMPDIR to a place of its own. */
#include <psp.h>
#include <string.h>

/* psp_fileCreateTmpName only makes a name; the creation tells whether somebody has it already. */
static char *create_directory(void) {
  static uint32_t counter; /* a part of the names; one thread at a time */
  for (;;) {
    char *name = psp_fileCreateTmpName(&counter, "session", "dir", NULL);
    if (name == NULL) return NULL;
    psp_status status = psp_dirCreate(name);
    if (status == PSP_OKAY) return name;
    psp_freeMem(name, NULL);
    if (status != PSP_EXISTS) return NULL;
  }
}

/* Removes the directory with the files in it; one with directories in it stays. */
static psp_status remove_directory(const char *directory) {
  psp_pathIter *entries = psp_pathOpen(directory, "*");
  const char *entry;
  uint32_t is_directory;
  while (entries != NULL && (entry = psp_pathNext(entries, &is_directory)) != NULL) {
    if (is_directory) continue;
    char *name = psp_makeString("%s\\%s", directory, entry);
    if (name != NULL) psp_fileRemove(name); /* one that stays fails the last step */
    psp_freeMem(name, NULL);
  }
  psp_pathClose(entries);
  return psp_dirRemove(directory);
}

static int use_directory(const char *directory) {
  char *name = psp_makeString("%s\\sort.run", directory);
  PSP_FH file = name == NULL ? NULL : psp_fileOpen(name, PSP_OPEN_WRITE | PSP_OPEN_CREATE, 0);
  int failed = file == NULL || psp_fileWrite(file, "run", 3) != 3;
  psp_fileClose(file);
  if (!failed) psp_printf("a file of %lld bytes in it\n", psp_fileLengthStat(name, 0));
  psp_freeMem(name, NULL);
  return failed;
}

int main(void) {
  if (psp_init() != PSP_OKAY) return 1;
  char *directory = create_directory();
  int result = directory == NULL || use_directory(directory);
  if (result != 0) psp_log_err("temporary directory: %s\n", strerror((int)psp_errno()));
  if (directory != NULL) {
    if (remove_directory(directory) != PSP_OKAY) result = 1;
    psp_printf("still there: %d\n", psp_fileValidate(directory));
  }
  psp_freeMem(directory, NULL);
  psp_term();
  return result;
}
