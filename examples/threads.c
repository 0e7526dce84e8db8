/* Threads: two of them search one half of a range each. Nobody can wait for a thread as such, so
 * each opens a gate when it is done; until then what it uses must stay. */
#include <psp.h>

typedef struct {
  uint32_t first, end, primes;
  psp_sync done; /* closed while a thread uses this record */
} Search;

static void run_search(void *argument) {
  Search *search = argument;
  for (uint32_t number = search->first; number < search->end; ++number) {
    uint32_t divisor = 2;
    while (divisor * divisor <= number && number % divisor != 0) ++divisor;
    if (divisor * divisor > number) ++search->primes;
  }
  psp_syncResume(search->done); /* last: whoever waited may end everything at once */
}

static int start(Search *search) {
  search->done = psp_syncCreate(PSP_SYNC_EVENT);
  if (search->done == PSP_SYNC_NONE) return 1;
  psp_syncStart(search->done); /* a new gate is open */
  if (psp_threadBegin(run_search, 0, search) == PSP_OKAY) return 0;
  psp_syncResume(search->done); /* there is nobody to wait for */
  return 1;
}

int main(void) {
  if (psp_init() != PSP_OKAY) return 1;
  Search half[2] = {{2, 500, 0, PSP_SYNC_NONE}, {500, 1000, 0, PSP_SYNC_NONE}};
  int failed = start(&half[0]) || start(&half[1]);
  for (int i = 0; i < 2; ++i) { /* PSP_SYNC_NONE lets through at once */
    while (psp_syncWait(half[i].done, PSP_NO_LIMIT) != PSP_OKAY) psp_sleep(1);
    psp_syncDelete(half[i].done);
  }
  if (!failed) psp_printf("%u + %u primes below 1000\n", half[0].primes, half[1].primes);
  psp_term();
  return failed;
}
