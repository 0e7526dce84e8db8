/* INI configuration: a value with a fallback, a change that keeps every other line, a list. */
#include <psp.h>
#include <string.h>

static const char kFile[] = "server.ini";

/* A setting that is missing keeps the default. */
static int32_t number(const char *key, int32_t fallback) {
  int32_t value = fallback;
  psp_iniInt32(kFile, "server", key, &value); /* untouched on any failure */
  return value;
}

static psp_status show_keys(void) {
  char names[256]; /* each name with its zero byte, and one zero byte more */
  psp_status status = psp_iniGet(kFile, "server", NULL, names, sizeof names);
  for (char *name = names; status == PSP_OKAY && *name != 0; name += strlen(name) + 1) {
    char value[64];
    status = psp_iniString(kFile, "server", name, value, sizeof value);
    if (status == PSP_OKAY) psp_printf("%s is \"%s\"\n", name, value);
  }
  return status;
}

int main(void) {
  if (psp_init() != PSP_OKAY) return 1;
  psp_stream *out = psp_fopen(kFile, "w", 1);
  int32_t written = psp_fputs("; settings\n[server]\nport=4000\nname=main\n", out);
  psp_fclose(out); /* a null stream fails above and does nothing here */
  psp_status status = written < 0 ? PSP_ERR_NOFILE : PSP_OKAY;
  if (status == PSP_OKAY) {
    psp_printf("port %d, limit %d\n", number("port", 80), number("limit", 16));
    status = psp_iniSet(kFile, "server", "port", "4001");
  }
  if (status == PSP_OKAY) status = psp_iniSet(kFile, "server", "limit", "8");
  if (status == PSP_OKAY) status = show_keys();
  if (status != PSP_OKAY) psp_log_err("%s: status %d\n", kFile, status);
  psp_term();
  return status == PSP_OKAY ? 0 : 1;
}
