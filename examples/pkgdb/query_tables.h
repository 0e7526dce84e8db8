/* Parse tables of query.y: generated from it by tools/make_parser_tables. Change the grammar
 * and run that again. */
/* clang-format off */
#ifndef QUERY_TABLES_H
#define QUERY_TABLES_H

#include <psp.h>

enum {
  QUERY_TOKEN_NAME = 4,
  QUERY_TOKEN_STRING = 5,
  QUERY_TOKEN_NUMBER = 6,
  QUERY_TOKEN_EQUAL = 7,
  QUERY_TOKEN_UNEQUAL = 8,
  QUERY_TOKEN_LESS = 9,
  QUERY_TOKEN_ATMOST = 10,
  QUERY_TOKEN_MORE = 11,
  QUERY_TOKEN_ATLEAST = 12,
  QUERY_TOKEN_OPEN = 13,
  QUERY_TOKEN_CLOSE = 14,
  QUERY_TOKEN_ORDER = 15,
  QUERY_TOKEN_BY = 16,
  QUERY_TOKEN_DESC = 17,
  QUERY_TOKEN_LIMIT = 18,
  QUERY_TOKEN_OR = 19,
  QUERY_TOKEN_AND = 20,
  QUERY_TOKEN_NOT = 21
};

enum {
  QUERY_RULE_QUERY = 1,
  QUERY_RULE_EVERYTHING = 2,
  QUERY_RULE_FILTER = 3,
  QUERY_RULE_OR = 4,
  QUERY_RULE_AND = 5,
  QUERY_RULE_NOT = 6,
  QUERY_RULE_GROUP = 7,
  QUERY_RULE_COMPARE = 8,
  QUERY_RULE_EQUAL = 9,
  QUERY_RULE_UNEQUAL = 10,
  QUERY_RULE_LESS = 11,
  QUERY_RULE_AT_MOST = 12,
  QUERY_RULE_MORE = 13,
  QUERY_RULE_AT_LEAST = 14,
  QUERY_RULE_STRING = 15,
  QUERY_RULE_NUMBER = 16,
  QUERY_RULE_UNORDERED = 17,
  QUERY_RULE_ORDER_UP = 18,
  QUERY_RULE_ORDER_DOWN = 19,
  QUERY_RULE_UNLIMITED = 20,
  QUERY_RULE_LIMIT = 21
};

static const int16_t query_yyexca[] = {
    -1, 1, 0, -1, -2, 0,
};

static const int16_t query_yyact[] = {
    6, 25, 9, 10, 10, 31, 9, 10, 21, 5, 14, 15, 16, 17, 18, 19, 22, 4, 3, 8, 27, 28, 29, 11, 12, 30,
    26, 13, 23, 24, 20, 7, 2, 1,
};

static const int16_t query_yypact[] = {
    -4, -1000, 4, -17, -4, -4, 3, -10, 0, -4, -4, -1000, -13, 15, -1000, -1000, -1000, -1000, -1000,
    -1000, -1000, 16, 21, -16, -1000, -1000, -1000, -1000, -1000, -1000, -12, -1000,
};

static const int16_t query_yypgo[] = {
    0, 33, 32, 31, 30, 18, 27, 26,
};

static const int16_t query_yyr1[] = {
    0, 1, 2, 2, 5, 5, 5, 5, 5, 6, 6, 6, 6, 6, 6, 7, 7, 3, 3, 3, 4, 4,
};

static const int16_t query_yyr2[] = {
    0, 3, 0, 1, 3, 3, 2, 3, 3, 1, 1, 1, 1, 1, 1, 1, 1, 0, 3, 4, 0, 2,
};

static const int16_t query_yychk[] = {
    -1000, -1, -2, -5, 21, 13, 4, -3, 15, 19, 20, -5, -5, -6, 7, 8, 9, 10, 11, 12, -4, 18, 16, -5,
    -5, 14, -7, 5, 6, 6, 4, 17,
};

static const int16_t query_yydef[] = {
    2, -2, 17, 3, 0, 0, 0, 20, 0, 0, 0, 6, 0, 0, 9, 10, 11, 12, 13, 14, 1, 0, 0, 4, 5, 7, 8, 15, 16,
    21, 18, 19,
};

static const psp_yyTables query_tables = {
    2, /* the token error */
    34, /* entries of yyact */
    query_yyexca,
    query_yyact,
    query_yypact,
    query_yypgo,
    query_yyr1,
    query_yyr2,
    query_yychk,
    query_yydef,
};

#endif
