/* The in-memory file store: one bit of the mode word puts a file into the memory of the process.
 * Its directories come into being with a name in them; nothing of it touches the disk. */
#include <psp.h>

static psp_status write_page(const char *name, uint8_t fill) {
  PSP_FH file = psp_fileOpen(name, PSP_OPEN_WRITE | PSP_OPEN_TRUNCATE, PSP_FILE_MEMORY);
  if (file == NULL) return PSP_FAILED;
  uint8_t page[4096];
  for (uint32_t i = 0; i < sizeof page; ++i) page[i] = fill;
  int32_t written = psp_fileWrite(file, page, sizeof page); /* fewer when memory is short */
  psp_fileClose(file);
  return written == (int32_t)sizeof page ? PSP_OKAY : PSP_FAILED;
}

static psp_status list(const char *directory) {
  psp_pathIter *entries = psp_pathOpenEx(directory, PSP_FILE_MEMORY, "*");
  if (entries == NULL) return PSP_FAILED;
  const char *name; /* in order, without "." and ".." */
  uint32_t is_directory;
  while ((name = psp_pathNext(entries, &is_directory)) != NULL) {
    psp_printf("%s%s\n", name, is_directory ? "\\" : "");
  }
  psp_pathClose(entries);
  return PSP_OKAY;
}

int main(void) {
  if (psp_init() != PSP_OKAY) return 1;
  psp_status status = write_page("\\pages\\second", 2);
  if (status == PSP_OKAY) status = write_page("\\pages\\old\\first", 1);
  if (status == PSP_OKAY) status = list("\\pages");
  if (status == PSP_OKAY) {
    status = psp_fileCopyEx("\\pages\\second", PSP_FILE_MEMORY, "second.page", 0); /* keeps one */
  }
  psp_printf("on the disk: %lld bytes\n", psp_fileLengthStat("second.page", 0));
  psp_term(); /* the store is gone */
  return status == PSP_OKAY ? 0 : 1;
}
