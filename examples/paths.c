/* Paths: a directory with its parents, an iteration over some of its entries, a name in parts.
 * Both separators work on every platform; the library writes backslashes. */
#include <psp.h>

/* The number of files whose names fit the pattern; the order of the names is the platform's. */
static int count_files(const char *directory, const char *pattern) {
  psp_pathIter *entries = psp_pathOpen(directory, pattern); /* null too where nothing matches */
  int count = 0;
  uint32_t is_directory;
  while (entries != NULL && psp_pathNext(entries, &is_directory) != NULL) {
    if (!is_directory) ++count; /* "." and ".." are among the entries */
  }
  psp_pathClose(entries);
  return count;
}

int main(void) {
  if (psp_init() != PSP_OKAY) return 1;
  psp_status status = psp_dirCreateAll("var/spool");
  int result = status != PSP_OKAY && status != PSP_EXISTS;
  static const char *const kFiles[] = {"var/spool/a.job", "var\\spool\\B.JOB", "var\\spool/c.lock"};
  for (int i = 0; i < 3 && result == 0; ++i) {
    PSP_FH file = psp_fileOpen(kFiles[i], PSP_OPEN_WRITE | PSP_OPEN_CREATE, 0);
    result = file == NULL;
    psp_fileClose(file);
  }
  if (result == 0) {
    psp_printf("*.job: %d, *.*: %d\n", count_files("var/spool", "*.job"),
               count_files("var/spool", "*.*"));
  }
  char *directory, *file;
  psp_pathSplit("var\\spool\\a.job", &directory, &file);
  psp_printf("%s in %s\n", file, directory);
  psp_printf("from a root: %d, %d\n", psp_pathIsFullyQualified("var/spool"),
             psp_pathIsFullyQualified("/var/spool"));
  psp_freeMem(directory, NULL);
  psp_freeMem(file, NULL);
  psp_term();
  return result;
}
