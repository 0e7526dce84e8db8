/* Channels and log: messages go to the console and, with a stamp, into the log file; one message
 * built from pieces comes out whole. At the end the log is shown without its stamps. */
#include <psp.h>
#include <string.h>

static int show_log(const char *name) {
  psp_stream *in = psp_fopen(name, "r", 0);
  if (in == NULL) return 1;
  char *line = NULL;
  uint32_t size = 0;
  while (psp_fGetLine(in, &line, &size) != NULL) {
    const char *text = strstr(line, "]  "); /* the stamp ends so */
    psp_printf("logged: %s", text == NULL ? line : text + 3);
  }
  psp_freeMem(line, NULL);
  psp_fclose(in);
  return 0;
}

int main(void) {
  if (psp_init() != PSP_OKAY) return 1;
  if (psp_log_open("server.log") != PSP_OKAY) {
    psp_log_err("server.log: %s\n", strerror((int)psp_errno())); /* goes on without a log file */
  }
  psp_log("listening on port %d\n", 4000);
  psp_log_err("connection %d lost\n", 7); /* to standard error and the log */

  psp_logChunk *line = psp_log_chunk_init(); /* null when memory is short; then nothing is logged */
  for (int table = 1; table <= 3; ++table) psp_log_chunk(line, "t%d ", table);
  psp_log_chunk_end(line, "checked\n");

  psp_log_close(); /* the console channels are closed by psp_term */
  int result = show_log("server.log");
  psp_term();
  return result;
}
