/* A query as a tree, made from its text by query_parse.c and answered by query.c. */
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

#endif
