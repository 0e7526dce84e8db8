/* Reading a query: the lexer and the actions for the tables of query.y.
 *
 * The parser engine asks the lexer for tokens and calls an action for each rule that it has found.
 * Everything that a query consists of belongs to one tag. The first thing wrong is told with the
 * line and the column where it stands, both from 1, columns in characters. */
#include <stdlib.h>
#include <string.h>

#include "query.h"
#include "query_tables.h"

enum { kEnd = 0, kNoToken = 3 }; /* kNoToken fits no rule */
enum { kMostShownBytes = 40 };

/* What the engine moves around for each symbol. */
typedef struct {
  uint32_t line, column; /* of the symbol's first character */
  const char *text;      /* of a name or string */
  uint32_t number;
  Operator operator;
  Field field;
  int is_descending;
  const Condition *condition;
} Value;

/* One parse. */
typedef struct {
  const char *next;
  uint32_t line, column; /* of the next character */
  uint32_t token_line, token_column;
  const char *token; /* the latest one, for a message */
  size_t token_length;
  int is_memory_short;
  psp_tag *tag;
  Query *query;
  char *message;
  uint32_t message_bytes;
} Parse;

static const char *const kFieldNames[kFieldCount] = {"name", "version", "section", "summary",
                                                     "size"};

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
static void complain(Parse *parse, uint32_t line, uint32_t column, const char *format, ...) {
  va_list arguments;
  if (parse->message[0] != '\0' || parse->is_memory_short) return;
  int32_t head = psp_snprintf(parse->message, parse->message_bytes, "query:%u:%u: ", line, column);
  va_start(arguments, format);
  psp_vsnprintf(parse->message + head, parse->message_bytes - (uint32_t)head, format, arguments);
  va_end(arguments);
  make_one_line(parse->message);
}

static int goes_on(char c) { return ((unsigned char)c & 0xC0) == 0x80; } /* a UTF-8 character */

/* How many bytes of a text a message shows: not too many, and none but whole characters. */
static int shown(const char *text, size_t length) {
  if (length <= kMostShownBytes) return (int)length;
  for (length = kMostShownBytes; length > 0 && goes_on(text[length]);) --length;
  return (int)length;
}

static void on_syntax_error(void *context) {
  Parse *parse = context;
  if (parse->token_length == 0) {
    complain(parse, parse->token_line, parse->token_column, "the query ends too early");
  } else {
    complain(parse, parse->token_line, parse->token_column, "\"%.*s\" does not fit here",
             shown(parse->token, parse->token_length), parse->token);
  }
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

/* Whether the text begins with the word, its letters small or capital. */
static int begins_with(const char *text, const char *word) {
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

static int32_t next_token(void *context, void *token_value) {
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

/* ---- The actions ----------------------------------------------------------------------------- */

static int16_t find_field(Parse *parse, const Value *name, Field *field) {
  for (int i = 0; i < kFieldCount; ++i) {
    if (strlen(name->text) != strlen(kFieldNames[i])) continue;
    if (!begins_with(name->text, kFieldNames[i])) continue;
    *field = (Field)i;
    return 0;
  }
  complain(parse, name->line, name->column,
           "\"%.*s\" is no field: name, version, section, summary or size",
           shown(name->text, strlen(name->text)), name->text);
  return kBadQuery;
}

static int16_t add_condition(Parse *parse, const Condition *condition, Value *result) {
  result->condition = psp_memdup(condition, sizeof *condition, parse->tag);
  return result->condition != NULL ? 0 : kFailed;
}

static int16_t compare(Parse *parse, const Value *name, const Value *operator,
                       const Value * operand, Value *result) {
  Condition condition = {.kind = kCompare,
                         .operator= operator->operator,
                         .text = operand->text,
                         .number = operand->number};
  int16_t status = find_field(parse, name, &condition.field);
  if (status != 0) return status;
  if ((condition.field == kSize) == (operand->text != NULL)) {
    complain(parse, operand->line, operand->column, "%s is compared with a %s", name->text,
             condition.field == kSize ? "number" : "string");
    return kBadQuery;
  }
  return add_condition(parse, &condition, result);
}

/* The values of a rule's symbols stand below each other, the last one's on top. */
static int16_t on_rule(void *context, void *last_value, int16_t rule, void *rule_result) {
  Parse *parse = context;
  Value *last = last_value, *result = rule_result;
  switch (rule) {
    case QUERY_RULE_QUERY:
      *parse->query = (Query){.where = last[-2].condition,
                              .order = last[-1].field,
                              .is_descending = last[-1].is_descending,
                              .limit = last[0].number};
      return 0;
    case QUERY_RULE_OR:
    case QUERY_RULE_AND: {
      Condition both = {.kind = rule == QUERY_RULE_OR ? kOr : kAnd,
                        .left = last[-2].condition,
                        .right = last[0].condition};
      return add_condition(parse, &both, result);
    }
    case QUERY_RULE_NOT: {
      Condition negation = {.kind = kNot, .right = last[0].condition};
      return add_condition(parse, &negation, result);
    }
    case QUERY_RULE_GROUP:
      result->condition = last[-1].condition;
      return 0;
    case QUERY_RULE_COMPARE:
      return compare(parse, &last[-2], &last[-1], &last[0], result);
    case QUERY_RULE_ORDER_UP:
      return find_field(parse, &last[0], &result->field);
    case QUERY_RULE_ORDER_DOWN:
      result->is_descending = 1;
      return find_field(parse, &last[-1], &result->field);
    case QUERY_RULE_EVERYTHING:
    case QUERY_RULE_UNORDERED:
      memset(result, 0, sizeof *result); /* a rule without symbols has no value yet */
      return 0;
    case QUERY_RULE_UNLIMITED:
      *result = (Value){.number = UINT32_MAX};
      return 0;
    case QUERY_RULE_LIMIT:
      result->number = last[0].number;
      return 0;
    default:
      if (rule >= QUERY_RULE_EQUAL && rule <= QUERY_RULE_AT_LEAST) {
        result->operator=(Operator)(rule - QUERY_RULE_EQUAL);
      }
      return 0; /* the value of the only symbol */
  }
}

int parse_query(Query *query, const char *text, psp_tag *tag, char *message, uint32_t size) {
  Parse parse = {.next = text,
                 .line = 1,
                 .column = 1,
                 .tag = tag,
                 .query = query,
                 .message = message,
                 .message_bytes = size};
  psp_yyContext context = {.valueSize = sizeof(Value),
                           .context = &parse,
                           .tables = &query_tables,
                           .lexer = next_token,
                           .action = on_rule,
                           .error = on_syntax_error,
                           .tag = tag};
  message[0] = '\0';
  if (strlen(text) > kMostQueryBytes) {
    complain(&parse, 1, 1, "a query has at most %d bytes", kMostQueryBytes);
    return kBadQuery;
  }
  if (psp_yyparse(&context) == 0) return 0;
  return message[0] != '\0' ? kBadQuery : kFailed; /* without a message memory was short */
}
