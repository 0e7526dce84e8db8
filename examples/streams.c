/* Text streams: a UTF-16 file with a byte-order mark, written and read in UTF-8, lines of any
 * length. In the file a line ends with carriage return and line feed, in the program with "\n". */
#include <errno.h>
#include <psp.h>
#include <string.h>

static int write_names(const char *file) {
  psp_stream *out = psp_fopen(file, "w", 2); /* units of 2 bytes */
  if (out == NULL) return 1;
  int failed = psp_fputs("Zo\xC3\xAB\n", out) < 0;
  failed |= psp_fprintf(out, "%s, born in %d\n", "Andr\xC3\xA9", 1961) < 0;
  errno = 0; /* the only sign of what the disk did not take */
  failed |= psp_fflush(out) != 0 || psp_errno() != 0;
  psp_fclose(out);
  return failed;
}

static int show_names(const char *file) {
  psp_stream *in = psp_fopen(file, "r", 0); /* finds the width out by the mark */
  if (in == NULL) return 1;
  char *line = NULL; /* grows with the longest line and is used again */
  uint32_t size = 0;
  while (psp_fGetLine(in, &line, &size) != NULL) {
    psp_printf("%u bytes: %s", (uint32_t)strcspn(line, "\n"), line);
  }
  psp_freeMem(line, NULL);
  psp_fclose(in);
  return 0;
}

int main(void) {
  if (psp_init() != PSP_OKAY) return 1;
  int result = write_names("names.txt");
  psp_printf("the file: %lld bytes\n", psp_fileLengthStat("names.txt", 0));
  if (result == 0) result = show_names("names.txt");
  if (result != 0) psp_log_err("names.txt: %s\n", strerror((int)psp_errno()));
  psp_term();
  return result;
}
