/* The store as test double for the disk: code that takes a mode word beside each name is tested in
 * memory, with nothing to clean up; in no-disk mode the same code meets a disk that fails. */
#include <psp.h>
#include <stdlib.h>

/* What is tested: counts a visit in a file and gives the number of visits; -1 on failure. A file
 * that is missing counts as no visit, a damaged one as a failure. */
static int32_t count_visit(const char *file, uint16_t mode) {
  char line[16] = "0";
  psp_stream *in = psp_fopenEx(file, "r", 0, mode);
  if (in != NULL) psp_fgets(line, sizeof line, in);
  psp_fclose(in);
  char *end;
  long visits = strtol(line, &end, 10);
  if (end == line || visits < 0 || visits >= INT32_MAX) return -1;

  psp_stream *out = psp_fopenEx(file, "w", 1, mode);
  if (out == NULL) return -1;
  int failed = psp_fprintf(out, "%d\n", (int32_t)visits + 1) < 0;
  psp_fclose(out);
  return failed ? -1 : (int32_t)visits + 1;
}

static int failures;
static void check(const char *what, int32_t expected, int32_t found) {
  if (expected != found) ++failures;
  psp_printf("%s: %s\n", what, expected == found ? "ok" : "FAILED");
}

int main(void) {
  psp_nodisk(); /* what touches the disk by mistake fails, and is seen */
  if (psp_init() != PSP_OKAY) return 1;
  check("first visit", 1, count_visit("\\visits", PSP_FILE_MEMORY));
  check("second visit", 2, count_visit("\\visits", PSP_FILE_MEMORY));

  psp_stream *damage = psp_fopenEx("\\visits", "w", 1, PSP_FILE_MEMORY);
  if (psp_fputs("not a number\n", damage) < 0) ++failures;
  psp_fclose(damage);
  check("damaged file", -1, count_visit("\\visits", PSP_FILE_MEMORY));
  check("no disk", -1, count_visit("visits", 0));
  psp_term(); /* and the store is empty again */
  return failures == 0 ? 0 : 1;
}
