/* Sync objects: a lock keeps a sum right that two threads change, a gate lets both start at the
 * same moment, and a gate of each thread tells that it is done. */
#include <psp.h>

typedef struct {
  psp_sync lock, start;
  int64_t balance; /* guarded by the lock */
} Account;

typedef struct {
  Account *account;
  psp_sync done;
  int32_t amount;
} Teller;

static void deposit(void *argument) {
  Teller *teller = argument;
  Account *account = teller->account;
  while (psp_syncWait(account->start, PSP_NO_LIMIT) != PSP_OKAY) psp_sleep(1);
  for (int i = 0; i < 10000; ++i) {
    psp_syncEnterExcl(account->lock);
    account->balance += teller->amount;
    psp_syncExitExcl(account->lock);
  }
  psp_syncResume(teller->done); /* last: whoever waited may end everything at once */
}

int main(void) {
  if (psp_init() != PSP_OKAY) return 1;
  Account account = {psp_syncCreate(PSP_SYNC_EXCL), psp_syncCreate(PSP_SYNC_EVENT), 0};
  Teller teller[2] = {{&account, psp_syncCreate(PSP_SYNC_EVENT), 3},
                      {&account, psp_syncCreate(PSP_SYNC_EVENT), -1}};
  int result = account.lock == PSP_SYNC_NONE || account.start == PSP_SYNC_NONE ||
               teller[0].done == PSP_SYNC_NONE || teller[1].done == PSP_SYNC_NONE;
  psp_syncStart(account.start); /* a new gate is open */
  for (int i = 0; i < 2 && result == 0; ++i) {
    psp_syncStart(teller[i].done);
    if (psp_threadBegin(deposit, 0, &teller[i]) == PSP_OKAY) continue;
    psp_syncResume(teller[i].done); /* there is nobody to wait for */
    result = 1;
  }
  psp_syncResume(account.start);
  for (int i = 0; i < 2; ++i) { /* a gate that was never closed lets through */
    while (psp_syncWait(teller[i].done, PSP_NO_LIMIT) != PSP_OKAY) psp_sleep(1);
    psp_syncDelete(teller[i].done);
  }
  psp_printf("balance: %lld\n", account.balance);
  psp_syncDelete(account.start);
  psp_syncDelete(account.lock);
  psp_term();
  return result;
}
