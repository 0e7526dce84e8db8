/* Message queues: a worker takes jobs from one queue and answers in another. Messages come in the
 * order in which they were written. Once the worker's last one is read, the queues may go. */
#include <psp.h>

enum { kSquare = 1, kQuit = 2 }; /* types of messages */

static void work(void *argument) {
  psp_queue *jobs = argument, *answers = psp_queueFind("answers");
  psp_word number = 0, type = kSquare;
  while (type != kQuit) {
    if (psp_queueRead(jobs, &number, NULL, &type, PSP_NO_LIMIT) != PSP_OKAY) type = kQuit;
    psp_queueWrite(answers, number, number * number, type, 0);
  }
}

static int run(psp_queue *jobs, psp_queue *answers) {
  if (jobs == NULL || answers == NULL || psp_threadBegin(work, 0, jobs) != PSP_OKAY) return 1;
  for (psp_word number = 1; number <= 3; ++number) psp_queueWrite(jobs, number, 0, kSquare, 0);
  psp_queueWrite(jobs, 0, 0, kQuit, 0);
  psp_word number, square, type;
  while (psp_queueRead(answers, &number, &square, &type, PSP_NO_LIMIT) == PSP_OKAY) {
    if (type == kQuit) return 0;
    psp_printf("%zu squared is %zu\n", (size_t)number, (size_t)square);
  }
  return 1;
}

int main(void) {
  if (psp_init() != PSP_OKAY) return 1;
  int result = 1;
  if (psp_queueInit(0) == PSP_OKAY) {
    psp_queue *answers = psp_queueCreate("answers"), *jobs = psp_queueCreate("jobs");
    result = run(jobs, answers);
    psp_queueDelete(jobs);
    psp_queueDelete(answers);
    psp_queueTerm(0);
  }
  psp_term();
  return result;
}
