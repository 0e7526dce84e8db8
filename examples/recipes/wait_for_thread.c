/* Wait for a thread with a gate: psp_threadJoin is not available, so a task carries a gate that
 * its thread opens as the last thing that it does. Unlike a join, the wait may have a limit. */
#include <psp.h>

typedef struct {
  void (*function)(void *);
  void *argument;
  psp_sync ended;
} Task;

static void run_task(void *argument) {
  Task *task = argument;
  task->function(task->argument);
  psp_syncResume(task->ended); /* from here on the task may be gone */
}

static psp_status task_begin(Task *task, void (*function)(void *), void *argument) {
  *task = (Task){function, argument, psp_syncCreate(PSP_SYNC_EVENT)};
  if (task->ended == PSP_SYNC_NONE) return PSP_NOMEMORY;
  psp_syncStart(task->ended); /* before the thread starts: a new gate is open */
  psp_status status = psp_threadBegin(run_task, 0, task);
  if (status != PSP_OKAY) psp_syncDelete(task->ended);
  return status;
}

/* After PSP_OKAY the task is over; otherwise it still runs, and what it uses must stay. */
static psp_status task_wait(Task *task, uint32_t milliseconds) {
  psp_status status = psp_syncWait(task->ended, milliseconds);
  if (status == PSP_OKAY) psp_syncDelete(task->ended);
  return status;
}

static void wait_for_gate(void *gate) { psp_syncWait(gate, PSP_NO_LIMIT); }

int main(void) {
  if (psp_init() != PSP_OKAY) return 1;
  psp_sync gate = psp_syncCreate(PSP_SYNC_EVENT);
  psp_syncStart(gate);
  Task task;
  int failed = gate == PSP_SYNC_NONE || task_begin(&task, wait_for_gate, gate) != PSP_OKAY;
  if (!failed) {
    psp_printf("at work: %d\n", task_wait(&task, 20) == PSP_TIMEOUT);
    psp_syncResume(gate);
    while (task_wait(&task, PSP_NO_LIMIT) != PSP_OKAY) psp_sleep(1);
    psp_printf("over\n");
  }
  psp_syncDelete(gate);
  psp_term();
  return failed;
}
