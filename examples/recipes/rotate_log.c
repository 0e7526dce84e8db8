/* Rotate a log: when server.log has reached its limit it becomes server.log.1, that one
 * server.log.2, and the oldest goes. psp_log_open empties the file that it opens, so a server that
 * wants to keep the log of its last run rotates at its start, too. */
#include <psp.h>
#include <string.h>

static const char *const kLogs[] = {"server.log", "server.log.1", "server.log.2"};
enum { kCount = 3, kLimit = 100 /* bytes */ };

/* No other thread may log meanwhile, and the library itself logs when memory is short: a server
 * rotates where none of its threads is at work. After a failure the old logs are kept and messages
 * go to the console alone. */
static psp_status rotate(void) {
  psp_log_close(); /* lets go of the file */
  for (int age = kCount - 1; age > 0; --age) {
    if (!psp_fileValidate(kLogs[age - 1])) continue;
    psp_status status = psp_fileMove(kLogs[age - 1], kLogs[age]); /* replaces what is there */
    if (status != PSP_OKAY) return status;
  }
  return psp_log_open(kLogs[0]);
}

int main(void) {
  if (psp_init() != PSP_OKAY) return 1;
  psp_status status = rotate();
  for (int request = 1; request <= 8 && status == PSP_OKAY; ++request) {
    psp_log("request %d done\n", request);
    if (psp_fileLengthStat(kLogs[0], 0) >= kLimit) status = rotate();
  }
  if (status != PSP_OKAY) psp_log_err("log: %s\n", strerror((int)psp_errno()));
  psp_log_close();
  for (int age = 0; age < kCount; ++age) {
    psp_printf("%s: %lld bytes\n", kLogs[age], psp_fileLengthStat(kLogs[age], 0));
  }
  psp_term();
  return status == PSP_OKAY ? 0 : 1;
}
