/* Threads: two of them search one half of a range each. Nobody can wait for a thread as such, so
 * each opens a gate when it is done; until then what it uses must stay. */
#include <psp.h>

typedef struct {
  psp_sync done; /* open while no thread uses this record */
  uint32_t first, end, primes;
} Search;

static int is_prime(uint32_t number) {
  for (uint32_t divisor = 2; divisor * divisor <= number; ++divisor) {
    if (number % divisor == 0) return 0;
  }
  return number > 1;
}

static void run_search(void *argument) {
  Search *search = argument;
  for (uint32_t number = search->first; number < search->end; ++number) {
    search->primes += is_prime(number) ? 1 : 0;
  }
  psp_syncResume(search->done); /* last: whoever waited may end everything at once */
}

static psp_status start(Search *search) {
  search->done = psp_syncCreate(PSP_SYNC_EVENT);
  if (search->done == PSP_SYNC_NONE) return PSP_NOMEMORY;
  psp_syncStart(search->done); /* a new gate is open */
  psp_status status = psp_threadBegin(run_search, 0, search);
  if (status != PSP_OKAY) psp_syncResume(search->done); /* there is nobody to wait for */
  return status;
}

int main(void) {
  if (psp_init() != PSP_OKAY) return 1;
  Search half[2] = {{PSP_SYNC_NONE, 0, 500, 0}, {PSP_SYNC_NONE, 500, 1000, 0}};
  psp_status status = PSP_OKAY;
  for (int i = 0; i < 2 && status == PSP_OKAY; ++i) status = start(&half[i]);
  for (int i = 0; i < 2; ++i) { /* PSP_SYNC_NONE lets through at once */
    while (psp_syncWait(half[i].done, PSP_NO_LIMIT) != PSP_OKAY) psp_sleep(1);
    psp_syncDelete(half[i].done);
  }
  if (status == PSP_OKAY) {
    psp_printf("%u + %u primes below 1000\n", half[0].primes, half[1].primes);
  }
  psp_term();
  return status == PSP_OKAY ? 0 : 1;
}
