/* A query as a tree, made from its text by query_lex.c and query_parse.c, answered by query.c. */
#ifndef QUERY_H
#define QUERY_H

#include "pkgdb.h"

typedef enum { kName, kVersion, kSection, kSummary, kSize, kFieldCount } Field;
typedef enum { kEqual, kUnequal, kLess, kAtMost, kMore, kAtLeast } Operator; /* as in query.y */

typedef struct Condition {
  enum { kOr, kAnd, kNot, kCompare } kind;
  const struct Condition *left, *right; /* kNot has a right one only, kCompare none */
  Field field;
  Operator operator;
  const char *text; /* what is compared with, or number for the size */
  uint32_t number;
} Condition;

typedef struct {
  const Condition *where; /* null: every package */
  Field order;            /* packages that it leaves equal are ordered by name */
  int is_descending;
  uint32_t limit; /* of the packages told */
} Query;

/* Reads the text; what the query refers to is in the tag. A message says what is wrong with it and
 * where, "query:LINE:COLUMN: ..."; after a failure without one memory was short. */
int parse_query(Query *query, const char *text, psp_tag *tag, char *message, uint32_t size);

/* ---- query_lex.c, for query_parse.c ---------------------------------------------------------- */

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

/* A lexer for the engine; the context is a Parse, the value a Value. */
int32_t next_token(void *context, void *token_value);

/* Sets the message, unless something was wrong before or memory is short. */
void complain(Parse *parse, uint32_t line, uint32_t column, const char *format, ...);

/* How many bytes of a text a message shows. */
int shown(const char *text, size_t length);

/* Whether the text begins with the word, which has small letters; the text may have capitals. */
int begins_with(const char *text, const char *word);

#endif
