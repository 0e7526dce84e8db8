/* A tag a request, with the jump: all memory of a request belongs to one tag, which goes with it.
 * The tag is armed: where memory is short, control comes back to the one place that handles it, and
 * the code between checks no allocation. */
#include <psp.h>
#include <string.h>

typedef struct {
  const char *user;
  size_t size;
} Request;

/* None of these allocations gives null. The jump leaves functions in the middle, though: nothing
 * that wants more than its tag's release (a file, a lock) may be open across an allocation. */
static void answer(const Request *request, psp_tag *tag) {
  char *title = psp_makeStr(tag, "%zu bytes for %s", request->size, request->user);
  char *page = psp_alloc(request->size, tag);
  memset(page, '.', request->size);
  psp_printf("%s: %.3s\n", title, page);
}

static psp_status handle(const Request *request) {
  psp_status status;
  jmp_buf out_of_memory;
  psp_tag *tag = psp_createTag(0);
  if (tag == PSP_TAG_FAILED) return PSP_NOMEMORY;
  if (setjmp(out_of_memory) == 0) {
    psp_resetTag(&out_of_memory, tag); /* armed as long as this function has not returned */
    answer(request, tag);
    status = PSP_OKAY;
  } else {
    psp_printf("%s: the request is too large\n", request->user);
    status = PSP_NOMEMORY;
  }
  psp_freeTagMemory(tag, 1);
  return status;
}

int main(void) {
  if (psp_init() != PSP_OKAY) return 1;
  const Request requests[] = {{"ann", 10}, {"ben", SIZE_MAX / 2}, {"cleo", 20}};
  int failed = 0;
  for (int i = 0; i < 3; ++i) failed += handle(&requests[i]) != PSP_OKAY;
  psp_printf("requests that failed: %d\n", failed);
  psp_term();
  return failed == 1 ? 0 : 1;
}
