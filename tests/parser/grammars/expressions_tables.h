/* Parse tables of expressions.y: generated from it by tools/make_parser_tables. Change the grammar
 * and run that again. */
/* clang-format off */
#ifndef EXPRESSIONS_TABLES_H
#define EXPRESSIONS_TABLES_H

#include <psp.h>

enum {
  EXPRESSIONS_TOKEN_NUMBER = 4,
  EXPRESSIONS_TOKEN_OPEN = 5,
  EXPRESSIONS_TOKEN_CLOSE = 6,
  EXPRESSIONS_TOKEN_END = 7,
  EXPRESSIONS_TOKEN_PLUS = 8,
  EXPRESSIONS_TOKEN_MINUS = 9,
  EXPRESSIONS_TOKEN_TIMES = 10,
  EXPRESSIONS_TOKEN_DIVIDE = 11,
  EXPRESSIONS_TOKEN_POWER = 12,
  EXPRESSIONS_TOKEN_LESS = 13,
  EXPRESSIONS_TOKEN_NEGATIVE = 14
};

enum {
  EXPRESSIONS_RULE_END = 2,
  EXPRESSIONS_RULE_ADD = 3,
  EXPRESSIONS_RULE_SUBTRACT = 4,
  EXPRESSIONS_RULE_MULTIPLY = 5,
  EXPRESSIONS_RULE_DIVIDE = 6,
  EXPRESSIONS_RULE_RAISE = 7,
  EXPRESSIONS_RULE_LESS = 8,
  EXPRESSIONS_RULE_NEGATE = 9,
  EXPRESSIONS_RULE_GROUP = 10,
  EXPRESSIONS_RULE_NUMBER = 11
};

static const int16_t expressions_yyexca[] = {
    -1, 1, 0, -1, -2, 0, -1, 20, 13, 0, -2, 8,
};

static const int16_t expressions_yyact[] = {
    2, 11, 12, 1, 13, 14, 0, 0, 15, 16, 17, 18, 19, 20, 21, 0, 7, 8, 9, 10, 11, 12, 6, 7, 8, 9, 10,
    11, 12, 9, 10, 11, 12, 5, 4, 0, 0, 0, 3,
};

static const int16_t expressions_yypact[] = {
    -1000, 29, 15, 29, 29, -1000, -1000, 29, 29, 29, 29, 29, 29, -1000, 8, 19, 19, -11, -11, -11,
    -1000, -1000,
};

static const int16_t expressions_yypgo[] = {
    0, 3, 0,
};

static const int16_t expressions_yyr1[] = {
    0, 1, 1, 2, 2, 2, 2, 2, 2, 2, 2, 2,
};

static const int16_t expressions_yyr2[] = {
    0, 0, 3, 3, 3, 3, 3, 3, 3, 2, 3, 1,
};

static const int16_t expressions_yychk[] = {
    -1000, -1, -2, 9, 5, 4, 7, 8, 9, 10, 11, 12, 13, -2, -2, -2, -2, -2, -2, -2, -2, 6,
};

static const int16_t expressions_yydef[] = {
    1, -2, 0, 0, 0, 11, 2, 0, 0, 0, 0, 0, 0, 9, 0, 3, 4, 5, 6, 7, -2, 10,
};

static const psp_yyTables expressions_tables = {
    2, /* the token error */
    39, /* entries of yyact */
    expressions_yyexca,
    expressions_yyact,
    expressions_yypact,
    expressions_yypgo,
    expressions_yyr1,
    expressions_yyr2,
    expressions_yychk,
    expressions_yydef,
};

#endif
