/* Rotate a log: when server.log has reached its limit it becomes server.log.1, that one
 * server.log.2, and the oldest goes. psp_log_open empties the file that it opens, so a server that
 * wants to keep the log of its last run rotates at its start, too. */
#include <psp.h>
#include <string.h>

enum { kKept = 2, kLimit = 100 };
static const char kLog[] = "server.log";

static char *old_log(int age) {
  return age == 0 ? psp_strdup(kLog, NULL) : psp_makeString("%s.%d", kLog, age);
}

/* No other thread may log meanwhile: a server does it where it has none at work, or under the lock
 * that all its messages take. After a failure the log stays as it is and messages go to the console
 * alone. */
static psp_status rotate(void) {
  psp_log_close(); /* lets go of the file */
  psp_status status = PSP_OKAY;
  for (int age = kKept; age > 0 && status == PSP_OKAY; --age) {
    char *from = old_log(age - 1), *to = old_log(age);
    if (from == NULL || to == NULL) {
      status = PSP_NOMEMORY;
    } else if (psp_fileValidate(from)) {
      status = psp_fileMove(from, to); /* replaces the older one */
    }
    psp_freeMem(from, NULL);
    psp_freeMem(to, NULL);
  }
  return status == PSP_OKAY ? psp_log_open(kLog) : status;
}

int main(void) {
  if (psp_init() != PSP_OKAY) return 1;
  psp_status status = rotate();
  for (int request = 1; request <= 8 && status == PSP_OKAY; ++request) {
    psp_log("request %d done\n", request);
    if (psp_fileLengthStat(kLog, 0) >= kLimit) status = rotate();
  }
  psp_log_close();
  for (int age = 0; age <= kKept && status == PSP_OKAY; ++age) {
    char *name = old_log(age);
    if (name == NULL) status = PSP_NOMEMORY;
    if (name != NULL) psp_printf("%s: %lld bytes\n", name, psp_fileLengthStat(name, 0));
    psp_freeMem(name, NULL);
  }
  if (status != PSP_OKAY) psp_log_err("%s: %s\n", kLog, strerror((int)psp_errno()));
  psp_term();
  return status == PSP_OKAY ? 0 : 1;
}
