/* Parse tables of calculator.y: generated from it by tools/make_parser_tables. Change the grammar
 * and run that again. */
/* clang-format off */
#ifndef CALCULATOR_TABLES_H
#define CALCULATOR_TABLES_H

#include <psp.h>

enum {
  CALCULATOR_TOKEN_NUMBER = 4,
  CALCULATOR_TOKEN_PLUS = 5,
  CALCULATOR_TOKEN_TIMES = 6
};

enum {
  CALCULATOR_RULE_ADD = 1,
  CALCULATOR_RULE_MULTIPLY = 2
};

static const int16_t calculator_yyexca[] = {
    -1, 1, 0, -1, -2, 0,
};

static const int16_t calculator_yyact[] = {
    3, 4, 4, 1, 2, 0, 0, 5, 6,
};

static const int16_t calculator_yypact[] = {
    0, -5, -1000, 0, 0, -4, -1000,
};

static const int16_t calculator_yypgo[] = {
    0, 3,
};

static const int16_t calculator_yyr1[] = {
    0, 1, 1, 1,
};

static const int16_t calculator_yyr2[] = {
    0, 3, 3, 1,
};

static const int16_t calculator_yychk[] = {
    -1000, -1, 4, 5, 6, -1, -1,
};

static const int16_t calculator_yydef[] = {
    0, -2, 3, 0, 0, 1, 2,
};

static const psp_yyTables calculator_tables = {
    2, /* the token error */
    9, /* entries of yyact */
    calculator_yyexca,
    calculator_yyact,
    calculator_yypact,
    calculator_yypgo,
    calculator_yyr1,
    calculator_yyr2,
    calculator_yychk,
    calculator_yydef,
};

#endif
