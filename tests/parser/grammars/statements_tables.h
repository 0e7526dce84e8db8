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
  STATEMENTS_TOKEN_END = 8
};

enum {
  STATEMENTS_RULE_BEGIN = 1,
  STATEMENTS_RULE_MORE = 2,
  STATEMENTS_RULE_ASSIGN = 3,
  STATEMENTS_RULE_SKIP = 4,
  STATEMENTS_RULE_RESUME = 5,
  STATEMENTS_RULE_AGAIN = 6,
  STATEMENTS_RULE_JOIN = 8
};

static const int16_t statements_yyexca[] = {
    -1, 1, 0, -1, -2, 0,
};

static const int16_t statements_yyact[] = {
    14, 13, 8, 15, 4, 7, 3, 6, 16, 5, 11, 12, 9, 10, 2, 1,
};

static const int16_t statements_yypact[] = {
    -1000, 2, -1000, 1, -3, 10, 5, -1000, 7, -1000, -7, -1000, -5, -1000, 3, -1000, -1000,
};

static const int16_t statements_yypgo[] = {
    0, 15, 14, 13,
};

static const int16_t statements_yyr1[] = {
    0, 1, 1, 2, 2, 2, 2, 3, 3,
};

static const int16_t statements_yyr2[] = {
    0, 0, 2, 4, 2, 4, 2, 1, 3,
};

static const int16_t statements_yychk[] = {
    -1000, -1, -2, 4, 2, 7, 6, 8, 5, 2, -3, 5, 4, 8, 7, 8, 5,
};

static const int16_t statements_yydef[] = {
    1, -2, 2, 0, 0, 0, 0, 4, 0, 6, 0, 7, 0, 3, 0, 5, 8,
};

static const psp_yyTables statements_tables = {
    2, /* the token error */
    16, /* entries of yyact */
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
