/* pkgdb's settings: the INI file pkgdb.ini in the data folder.
 *
 *   [input]  file      the package records; default /var/lib/dpkg/status
 *   [report] encoding  utf-8 or utf-16; default utf-16
 *   [log]    file      a name that ends in .log, stdout, stderr or none; default pkgdb.log
 *   [serve]  log       the same for the server, which runs beside other commands; default serve.log
 *
 * A table says what each setting may be. It judges what the file holds and what `pkgdb set` is
 * given, so that the one never writes what the other refuses. Names that are not fully qualified
 * lie in the data folder. */
#include <string.h>

#include "pkgdb.h"

typedef struct {
  const char *section;
  const char *key;
  const char *standard;
  const char *wanted; /* what accepts wants, for the message */
  int (*accepts)(const char *value);
} Rule;

static int is_name(const char *value) { return value[0] != '\0'; }

static int is_encoding(const char *value) {
  return strcmp(value, "utf-8") == 0 || strcmp(value, "utf-16") == 0;
}

/* Opening a log empties the file: the ending keeps a slip from emptying another one. */
static int is_log(const char *value) {
  static const char kEnding[] = ".log";
  size_t length = strlen(value), ending = strlen(kEnding);
  return strcmp(value, "none") == 0 || strcmp(value, "stdout") == 0 ||
         strcmp(value, "stderr") == 0 ||
         (length > ending && strcmp(value + length - ending, kEnding) == 0);
}

static const Rule kRules[kSettingCount] = {
    [kInputFile] = {"input", "file", "/var/lib/dpkg/status", "the name of a file", is_name},
    [kReportEncoding] = {"report", "encoding", "utf-16", "utf-8 or utf-16", is_encoding},
    [kLogFile] = {"log", "file", "pkgdb.log", "a name that ends in .log, stdout, stderr or none",
                  is_log},
    [kServeLog] = {"serve", "log", "serve.log", "a name that ends in .log, stdout, stderr or none",
                   is_log},
};

static int refuse(const char *where, const Rule *rule, const char *value) {
  psp_log_err("%s: [%s] %s is \"%s\", but should be %s\n", where, rule->section, rule->key, value,
              rule->wanted);
  return kBadSetting;
}

/* ---- Names ----------------------------------------------------------------------------------- */

int make_folder(const char *folder, uint16_t mode) {
  if (mode == PSP_FILE_MEMORY) return 0;
  psp_status status = psp_dirCreateAll(folder);
  if (status == PSP_OKAY || status == PSP_EXISTS) return 0;
  return file_failed(folder, "cannot be created", kFailed);
}

/* With the library's own separator, a backslash, which the platform layer turns into what the
 * platform wants. */
char *data_path(const char *folder, const char *name, psp_tag *tag) {
  if (psp_pathIsFullyQualified(name)) return psp_strdup(name, tag);
  return psp_makeStr(tag, "%s\\%s", folder, name);
}

/* ---- Reading --------------------------------------------------------------------------------- */

static int look_up(const char *ini, uint16_t mode, const Rule *rule, char *value) {
  switch (psp_iniGetEx(ini, rule->section, rule->key, value, kSettingBytes, mode)) {
    case PSP_OKAY:
      return rule->accepts(value) ? 0 : refuse(ini, rule, value);
    case PSP_FAILED: /* the file does not name it */
      psp_strncpyZ(value, rule->standard, kSettingBytes);
      return 0;
    case PSP_ERR_BUFFERFULL:
      psp_log_err("%s: [%s] %s is too long\n", ini, rule->section, rule->key);
      return kBadSetting;
    default:
      return file_failed(ini, "cannot be read", kBadSetting);
  }
}

int read_settings(Settings *settings, const char *folder, uint16_t mode) {
  char *ini = data_path(folder, "pkgdb.ini", NULL);
  if (ini == NULL) return kFailed;
  settings->folder = folder;
  settings->mode = mode;
  int result = 0, has_file = psp_fileValidateEx(ini, mode, NULL);
  for (int i = 0; i < kSettingCount && result == 0; ++i) {
    psp_strncpyZ(settings->value[i], kRules[i].standard, kSettingBytes);
    if (has_file) result = look_up(ini, mode, &kRules[i], settings->value[i]);
  }
  psp_freeMem(ini, NULL);
  return result;
}

/* ---- Changing -------------------------------------------------------------------------------- */

static const Rule *find_rule(const char *section, const char *key) {
  for (int i = 0; i < kSettingCount; ++i) {
    const Rule *rule = &kRules[i];
    if (strcmp(rule->section, section) == 0 && strcmp(rule->key, key) == 0) return rule;
  }
  psp_log_err("[%s] %s is no setting; these are:\n", section, key);
  for (int i = 0; i < kSettingCount; ++i) {
    const Rule *rule = &kRules[i];
    psp_log_err("  [%s] %s: %s\n", rule->section, rule->key, rule->wanted);
  }
  return NULL;
}

/* Whether an INI line gives the value back as it is: a semicolon starts a comment, and blanks
 * around the value are dropped. */
static int survives_in_ini(const char *value) {
  static const char kBlanks[] = " \t\v\f";
  size_t length = strlen(value);
  if (length > kSettingBytes - 3) return 0; /* room that psp_iniGet wants behind it */
  if (length == 0) return 1;
  return strpbrk(value, ";\r\n") == NULL && strchr(kBlanks, value[0]) == NULL &&
         strchr(kBlanks, value[length - 1]) == NULL;
}

/* An update wants a file that exists; one that does is left as it is. */
static int create_missing(const char *ini, uint16_t mode) {
  PSP_FH file = psp_fileOpen(ini, PSP_OPEN_WRITE | PSP_OPEN_CREATE, mode);
  if (file == NULL) return file_failed(ini, "cannot be created", kFailed);
  psp_fileClose(file);
  return 0;
}

static int update(const char *ini, uint16_t mode, const Rule *rule, const char *value) {
  char found[kSettingBytes];
  int result = create_missing(ini, mode);
  if (result != 0) return result;
  if (psp_iniSetEx(ini, rule->section, rule->key, value, mode) != PSP_OKAY) {
    return file_failed(ini, "cannot be changed", kFailed);
  }
  /* An update knows a key by its exact line, "key=value". A line that a user has spelled "key = "
   * stays, and as the first of the name it counts. */
  result = look_up(ini, mode, rule, found);
  if (result == 0 && strcmp(found, value) != 0) {
    psp_log_err("%s: [%s] %s stays \"%s\": an earlier line, spelled with blanks, sets it\n", ini,
                rule->section, rule->key, found);
    result = kBadSetting;
  }
  return result;
}

int change_setting(const char *folder, uint16_t mode, const char *section, const char *key,
                   const char *value) {
  const Rule *rule = find_rule(section, key);
  if (rule == NULL) return kBadSetting;
  if (!rule->accepts(value)) return refuse("pkgdb set", rule, value);
  if (!survives_in_ini(value)) {
    psp_log_err("pkgdb set: an INI file cannot hold \"%.60s\"\n", value);
    return kBadSetting;
  }
  int result = make_folder(folder, mode);
  if (result != 0) return result;
  char *ini = data_path(folder, "pkgdb.ini", NULL);
  if (ini == NULL) return kFailed;
  result = update(ini, mode, rule, value);
  if (result == 0) psp_log("%s: [%s] %s is %s\n", ini, section, key, value);
  psp_freeMem(ini, NULL);
  return result;
}
