/* Parse tables of statements.y: generated from it by tools/make_parser_tables. Change the grammar
 * and run that again. */
/* clang-format off */
#ifndef STATEMENTS_TABLES_H
#define STATEMENTS_TABLES_H

#include <psp.h>

enum {
  STATEMENTS_TOKEN_NAME = 4,
  STATEMENTS_TOKEN_NUMBER = 5,
  STATEMENTS_TOKEN_IS = 6,
  STATEMENTS_TOKEN_AND = 7,
  STATEMENTS_TOKEN_END = 8,
  STATEMENTS_TOKEN_OPEN = 9,
  STATEMENTS_TOKEN_CLOSE = 10
};

enum {
  STATEMENTS_RULE_BEGIN = 1,
  STATEMENTS_RULE_MORE = 2,
  STATEMENTS_RULE_ASSIGN = 3,
  STATEMENTS_RULE_SKIP = 4,
  STATEMENTS_RULE_RESUME = 5,
  STATEMENTS_RULE_AGAIN = 6,
  STATEMENTS_RULE_OUTERMOST = 7,
  STATEMENTS_RULE_JOIN = 9,
  STATEMENTS_RULE_WRAP = 11,
  STATEMENTS_RULE_MIDDLE = 12
};

static const int16_t statements_yyexca[] = {
    -1, 1, 0, -1, -2, 0,
};

static const int16_t statements_yyact[] = {
    11, 4, 22, 3, 17, 13, 5, 7, 6, 20, 19, 21, 9, 23, 18, 8, 15, 16, 10, 12, 14, 2, 1,
};

static const int16_t statements_yypact[] = {
    -1000, -1, -1000, 1, 7, 16, -4, 11, -1000, 13, -1000, -6, -1000, -4, 2, -1000, 3, -1000, -8,
    -1000, 8, -1000, -1000, -1000,
};

static const int16_t statements_yypgo[] = {
    0, 22, 21, 20, 0, 19,
};

static const int16_t statements_yyr1[] = {
    0, 1, 1, 2, 2, 2, 2, 2, 3, 3, 4, 4, 5,
};

static const int16_t statements_yyr2[] = {
    0, 0, 2, 4, 2, 4, 2, 3, 1, 3, 1, 3, 0,
};

static const int16_t statements_yychk[] = {
    -1000, -1, -2, 4, 2, 7, 9, 6, 8, 5, 2, -4, -5, 9, -3, 5, 4, 10, -4, 8, 7, 8, 10, 5,
};

static const int16_t statements_yydef[] = {
    1, -2, 2, 0, 0, 0, 12, 0, 4, 0, 6, 0, 10, 12, 0, 8, 0, 7, 0, 3, 0, 5, 11, 9,
};

static const psp_yyTables statements_tables = {
    2, /* the token error */
    23, /* entries of yyact */
    statements_yyexca,
    statements_yyact,
    statements_yypact,
    statements_yypgo,
    statements_yyr1,
    statements_yyr2,
    statements_yychk,
    statements_yydef,
};

#endif
