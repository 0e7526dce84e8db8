/* Sync objects: a recursive lock around a sum that two threads change, a gate that tells the end.
 */
#include <psp.h>

static psp_sync lock, done;
static int64_t balance; /* guarded by the lock */

static void change(int32_t amount) {
  psp_syncEnterExcl(lock); /* perhaps once more: it is the thread's already */
  balance += amount;
  psp_syncExitExcl(lock);
}

static void run_teller(void *amount) {
  for (int i = 0; i < 10000; ++i) {
    psp_syncEnterExcl(lock); /* nobody sees the one without the other */
    change(*(const int32_t *)amount);
    change(-1);
    psp_syncExitExcl(lock);
  }
  psp_syncResume(done); /* last: whoever waited may end everything at once */
}

int main(void) {
  if (psp_init() != PSP_OKAY) return 1;
  lock = psp_syncCreate(PSP_SYNC_EXCL);
  done = psp_syncCreate(PSP_SYNC_EVENT);
  int32_t amount = 5;
  int result = lock == PSP_SYNC_NONE || done == PSP_SYNC_NONE;
  psp_syncStart(done); /* a new gate is open */
  if (result == 0 && psp_threadBegin(run_teller, 0, &amount) != PSP_OKAY) result = 1;
  if (result == 0) {
    for (int i = 0; i < 10000; ++i) change(-2);
    while (psp_syncWait(done, PSP_NO_LIMIT) != PSP_OKAY) psp_sleep(1); /* refused waits, too */
    psp_printf("balance: %lld\n", balance);
  }
  psp_syncDelete(done);
  psp_syncDelete(lock);
  psp_term();
  return result;
}
