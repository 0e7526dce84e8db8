/* Time, environment and process: a setting from the environment, a duration, and a server that runs
 * until the user interrupts it. */
#include <psp.h>
#include <signal.h>

static psp_sync stopped;

/* Runs on a thread of its own, never inside a signal, and may use the whole library. */
static void on_interrupt(void) { psp_syncResume(stopped); }

static int serve_until_interrupted(void) {
  psp_syncStart(stopped); /* a new gate is open */
  if (psp_handleInterrupt(on_interrupt) != PSP_OKAY) return 1;
  uint64_t start = psp_timeNanoSecs();
  raise(SIGINT); /* in the place of a user who presses Ctrl+C */
  psp_status status = psp_syncWait(stopped, 10000);
  uint64_t milliseconds = (psp_timeNanoSecs() - start) / 1000000;
  psp_handleInterrupt(NULL); /* from here on an interrupt does what it did before */
  psp_printf("interrupted within ten seconds: %d, %d\n", status == PSP_OKAY, milliseconds < 10000);
  return status != PSP_OKAY;
}

int main(void) {
  if (psp_init() != PSP_OKAY) return 1;
  const char *home = psp_getenv("EXAMPLE_SERVER_HOME");
  psp_printf("home: %s\n", home == NULL ? "not set, the current directory" : home);

  struct tm parts;
  if (psp_timeLocaltime(psp_timeSecs(), &parts) != NULL) {
    psp_printf("the year has four digits: %d\n", parts.tm_year + 1900 > 999);
  }
  stopped = psp_syncCreate(PSP_SYNC_EVENT);
  int result = stopped == PSP_SYNC_NONE ? 1 : serve_until_interrupted();
  psp_syncDelete(stopped);
  psp_term();
  return result;
}
