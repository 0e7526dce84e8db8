#include <psp.h>

int main(void) {
  if (psp_init() != PSP_OKAY) return 1;
  char *text = psp_makeString("%d + %d = %lld", 40, 2, (int64_t)42);
  psp_printf("%s\n", text);
  psp_freeMem(text, NULL);
  psp_term();
  return 0;
}
