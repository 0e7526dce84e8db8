/* The lexer of queries: cuts the text into words, strings, numbers and signs, and keeps account of
 * where it is, for messages.
 *
 * Lines and columns count from 1, columns in characters. Words may be in small or capital letters.
 * Each string or name is copied into the tag, and outlives the text. */
#include <string.h>

#include "query.h"
#include "query_tables.h"

enum { kEnd = 0, kNoToken = 3 }; /* kNoToken fits no rule */
enum { kMostShownBytes = 40 };

static const struct {
  const char *text;
  int token;
} kWords[] = {{"and", QUERY_TOKEN_AND},     {"or", QUERY_TOKEN_OR},     {"not", QUERY_TOKEN_NOT},
              {"order", QUERY_TOKEN_ORDER}, {"by", QUERY_TOKEN_BY},     {"desc", QUERY_TOKEN_DESC},
              {"limit", QUERY_TOKEN_LIMIT}, {"<=", QUERY_TOKEN_ATMOST}, {">=", QUERY_TOKEN_ATLEAST},
              {"!=", QUERY_TOKEN_UNEQUAL},  {"=", QUERY_TOKEN_EQUAL},   {"<", QUERY_TOKEN_LESS},
              {">", QUERY_TOKEN_MORE},      {"(", QUERY_TOKEN_OPEN},    {")", QUERY_TOKEN_CLOSE}};

/* ---- Messages -------------------------------------------------------------------------------- */

/* Only the first counts: what follows may be its consequence, as it is when memory is short. */
void complain(Parse *parse, uint32_t line, uint32_t column, const char *format, ...) {
  va_list arguments;
  if (parse->message[0] != '\0' || parse->is_memory_short) return;
  int32_t head = psp_snprintf(parse->message, parse->message_bytes, "query:%u:%u: ", line, column);
  va_start(arguments, format);
  psp_vsnprintf(parse->message + head, parse->message_bytes - (uint32_t)head, format, arguments);
  va_end(arguments);
  make_one_line(parse->message);
}

static int goes_on(char c) { return ((unsigned char)c & 0xC0) == 0x80; } /* a UTF-8 character */

/* Not too many, and none but whole characters. */
int shown(const char *text, size_t length) {
  if (length <= kMostShownBytes) return (int)length;
  for (length = kMostShownBytes; length > 0 && goes_on(text[length]);) --length;
  return (int)length;
}

/* ---- The lexer ------------------------------------------------------------------------------- */

static char small(char c) { return c >= 'A' && c <= 'Z' ? (char)(c - 'A' + 'a') : c; }
static int is_letter(char c) { return small(c) >= 'a' && small(c) <= 'z'; }
static int is_digit(char c) { return c >= '0' && c <= '9'; }

/* Steps over bytes; those that go on a UTF-8 character have no column of their own. */
static void step(Parse *parse, size_t count) {
  for (; count > 0; --count, ++parse->next) {
    if (*parse->next == '\n') {
      ++parse->line;
      parse->column = 1;
    } else if (!goes_on(*parse->next)) {
      ++parse->column;
    }
  }
}

static const char *copy(Parse *parse, const char *text, size_t length) {
  const char *copied = psp_makeStr(parse->tag, "%.*s", (int)length, text);
  if (copied == NULL) parse->is_memory_short = 1;
  return copied;
}

static int take_string(Parse *parse, Value *value) {
  const char *end = strchr(parse->next + 1, '"');
  if (end == NULL) {
    complain(parse, parse->line, parse->column, "the string has no end");
    return kNoToken;
  }
  parse->token_length = (size_t)(end + 1 - parse->next);
  value->text = copy(parse, parse->next + 1, parse->token_length - 2);
  return value->text != NULL ? QUERY_TOKEN_STRING : kNoToken;
}

static int take_number(Parse *parse, Value *value) {
  uint64_t number = 0;
  size_t length = 0;
  for (; is_digit(parse->next[length]); ++length) {
    number = 10 * number + (uint64_t)(parse->next[length] - '0');
    if (number > UINT32_MAX) number = UINT32_MAX; /* no package is larger */
  }
  parse->token_length = length;
  value->number = (uint32_t)number;
  return QUERY_TOKEN_NUMBER;
}

int begins_with(const char *text, const char *word) {
  while (*word != '\0' && small(*text) == *word) ++text, ++word;
  return *word == '\0';
}

static int take_no_token(Parse *parse) {
  int length = 1;
  while (length < 4 && goes_on(parse->next[length])) ++length;
  complain(parse, parse->line, parse->column, "\"%.*s\" starts nothing that is known", length,
           parse->next);
  return kNoToken;
}

static int take_word(Parse *parse, Value *value) {
  size_t length = 0;
  while (is_letter(parse->next[length])) ++length;
  for (size_t i = 0; i < sizeof kWords / sizeof *kWords; ++i) {
    size_t bytes = strlen(kWords[i].text);
    if (length != 0 && bytes != length) continue;
    if (!begins_with(parse->next, kWords[i].text)) continue;
    parse->token_length = bytes;
    return kWords[i].token;
  }
  if (length == 0) return take_no_token(parse);
  parse->token_length = length;
  value->text = copy(parse, parse->next, length);
  return value->text != NULL ? QUERY_TOKEN_NAME : kNoToken;
}

int32_t next_token(void *context, void *token_value) {
  Parse *parse = context;
  Value *value = token_value;
  step(parse, strspn(parse->next, " \t\r\n"));
  memset(value, 0, sizeof *value);
  parse->token = parse->next;
  parse->token_length = 0;
  parse->token_line = value->line = parse->line;
  parse->token_column = value->column = parse->column;
  if (*parse->next == '\0') return kEnd;
  int token = *parse->next == '"'      ? take_string(parse, value)
              : is_digit(*parse->next) ? take_number(parse, value)
                                       : take_word(parse, value);
  step(parse, parse->token_length);
  return token;
}
