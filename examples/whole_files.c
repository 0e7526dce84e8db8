/* Whole files: a new version is written beside the file, the old one is kept under another name,
 * and the new one takes its place. At every moment one whole version exists. */
#include <psp.h>
#include <string.h>

static psp_status write_file(const char *name, const char *text) {
  PSP_FH file = psp_fileOpen(name, PSP_OPEN_WRITE | PSP_OPEN_TRUNCATE, 0);
  if (file == NULL) return PSP_FAILED;
  int32_t length = (int32_t)strlen(text);
  psp_status status = psp_fileWrite(file, text, (uint32_t)length) == length ? PSP_OKAY : PSP_FAILED;
  psp_fileClose(file);
  return status;
}

static psp_status replace(const char *name, const char *fresh, const char *backup) {
  psp_status status = psp_fileCopy(name, backup);
  if (status != PSP_OKAY) return status;
  if (psp_fileCmp(name, backup) != 0) return PSP_FAILED;
  return psp_fileMove(fresh, name); /* unlike psp_fileRename it replaces what is there */
}

int main(void) {
  if (psp_init() != PSP_OKAY) return 1;
  psp_status status = write_file("prices.txt", "coffee 3\n");
  if (status == PSP_OKAY) status = write_file("prices.new", "coffee 3\ntea 2\n");
  if (status == PSP_OKAY) status = replace("prices.txt", "prices.new", "prices.old");
  if (status == PSP_OKAY) {
    psp_printf("prices.txt: %lld bytes\n", psp_fileLengthStat("prices.txt", 0));
    psp_printf("prices.old: %lld bytes\n", psp_fileLengthStat("prices.old", 0));
    psp_printf("prices.new exists: %d\n", psp_fileValidate("prices.new"));
    psp_printf("old and new differ: %d\n", psp_fileCmp("prices.txt", "prices.old") == PSP_FAILED);
    status = psp_fileRemove("prices.old");
  }
  if (status != PSP_OKAY) psp_log_err("prices.txt: %s\n", strerror((int)psp_errno()));
  psp_term();
  return status == PSP_OKAY ? 0 : 1;
}
