/* Formatted text: into a buffer, into a new string, and what differs from the C runtime's printf:
 * "l" is 32 bits on every platform, so a long is cast and printed with "ll"; halves are rounded
 * away from zero; an exponent has three digits or more. */
#include <psp.h>

int main(void) {
  char buffer[12];
  int32_t needed = psp_snprintf(buffer, sizeof buffer, "%s %05d", "invoice", 271); /* unstarted */
  if (psp_init() != PSP_OKAY) return 1;
  psp_printf("\"%s\" of %d characters\n", buffer, needed);

  long rows = 1234567;
  psp_printf("%lld rows, %zu bytes\n", (int64_t)rows, sizeof buffer);
  psp_printf("[%6.0f] [%-6s] [%+d] [%#x]\n", 2.5, "left", 7, 255);
  psp_printf("%g %e\n", 1e100, 12345.678);

  char *path = psp_makeString("%s-%08X.%s", "dump", 0xBEEFu, "bin"); /* as long as it must be */
  if (path != NULL) psp_printf("%s\n", path);
  int result = path == NULL;
  psp_freeMem(path, NULL);
  psp_term();
  return result;
}
