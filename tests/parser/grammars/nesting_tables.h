/* Parse tables of nesting.y: generated from it by tools/make_parser_tables. Change the grammar
 * and run that again. */
/* clang-format off */
#ifndef NESTING_TABLES_H
#define NESTING_TABLES_H

#include <psp.h>

enum {
  NESTING_TOKEN_OPEN = 4,
  NESTING_TOKEN_CLOSE = 5
};

enum {
  NESTING_RULE_WRAP = 2,
  NESTING_RULE_MIDDLE = 3
};

static const int16_t nesting_yyexca[] = {
    -1, 1, 0, -1, -2, 0,
};

static const int16_t nesting_yyact[] = {
    5, 3, 1, 2, 0, 0, 4,
};

static const int16_t nesting_yypact[] = {
    -3, -1000, -1000, -3, -5, -1000,
};

static const int16_t nesting_yypgo[] = {
    0, 2, 3,
};

static const int16_t nesting_yyr1[] = {
    0, 1, 1, 2,
};

static const int16_t nesting_yyr2[] = {
    0, 1, 3, 0,
};

static const int16_t nesting_yychk[] = {
    -1000, -1, -2, 4, -1, 5,
};

static const int16_t nesting_yydef[] = {
    3, -2, 1, 3, 0, 2,
};

static const psp_yyTables nesting_tables = {
    2, /* the token error */
    7, /* entries of yyact */
    nesting_yyexca,
    nesting_yyact,
    nesting_yypact,
    nesting_yypgo,
    nesting_yyr1,
    nesting_yyr2,
    nesting_yychk,
    nesting_yydef,
};

#endif
