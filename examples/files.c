/* Files by handle: records of one size, written in a row, changed in place and read back. A write
 * is done when it wrote every byte; it is durable after a sync that left no error. */
#include <errno.h>
#include <psp.h>
#include <string.h>

typedef struct {
  int32_t id, quantity;
} Record;

static const int32_t kSize = sizeof(Record);

static int change(PSP_FH file) {
  Record first[] = {{1, 10}, {2, 20}, {3, 30}}, second = {2, 25}, record;
  if (psp_fileWrite(file, first, sizeof first) != 3 * kSize) return 1;
  if (psp_fileSeekWrite(file, kSize, &second, sizeof second) != kSize) return 1;
  errno = 0; /* a failed sync is told by the error code alone; on Windows SetLastError(0) */
  psp_fileSync(file);
  if (psp_errno() != 0) return 1;

  int32_t count;
  if (psp_fileSeek(file, 0, PSP_SEEK_START) != PSP_OKAY) return 1;
  while ((count = psp_fileRead(file, &record, sizeof record)) == kSize) {
    psp_printf("record %d: %d\n", record.id, record.quantity);
  }
  psp_printf("%lld bytes\n", psp_fileLength(file));
  return count == 0 ? 0 : 1; /* 0 is the end; anything else half a record or a failure */
}

int main(void) {
  if (psp_init() != PSP_OKAY) return 1;
  PSP_FH file = psp_fileOpen("stock.dat", PSP_OPEN_READWRITE | PSP_OPEN_TRUNCATE,
                             PSP_FILE_DENY_WRITE); /* nobody else writes meanwhile */
  int result = file == NULL ? 1 : change(file);
  if (result != 0) psp_log_err("stock.dat: %s\n", strerror((int)psp_errno()));
  psp_fileClose(file);
  psp_term();
  return result;
}
