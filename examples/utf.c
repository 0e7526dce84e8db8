/* UTF-8 and UTF-16: text that may be invalid is measured, converted with a replacement, and
 * refused. */
#include <psp.h>

static int convert(const char *text) {
  int32_t units = psp_utf8_to_wchar(NULL, text, 0, PSP_UTF8_REPLACE); /* the terminator too */
  psp_wchar *wide = psp_convertToWchar(text, PSP_UTF8_REPLACE);
  char *back = wide == NULL ? NULL : psp_convertToUTF8(wide, PSP_UTF8_STRICT);
  if (back != NULL) psp_printf("%d units: %s\n", units - 1, back);
  psp_freeMem(wide, NULL);
  psp_freeMem(back, NULL);
  return back == NULL;
}

int main(void) {
  if (psp_init() != PSP_OKAY) return 1;
  int result = convert("caf\xC3\xA9 \xF0\x9F\x8D\xB5"); /* the cup takes two units */
  result |= convert("caf\xE9");                         /* another encoding: invalid as UTF-8 */

  psp_wchar name[8];
  int32_t stored = psp_utf8_to_wchar(name, "caf\xE9", 8, PSP_UTF8_STRICT);
  psp_printf("strictly: %d\n", stored);

  char small[5]; /* what does not fit is dropped, never split */
  stored = psp_wchar_to_utf8(small, PSP_W("caf\u00E9"), sizeof small, PSP_UTF8_STRICT);
  psp_printf("%d bytes: %s\n", stored, small);
  psp_term();
  return result;
}
