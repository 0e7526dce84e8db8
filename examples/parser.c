/* The parser engine: a calculator with numbers of one digit. calculator.y holds its grammar, from
 * which tools/make_parser_tables has made calculator_tables.h; lexer and actions stand here. */
#include <psp.h>

#include "calculator_tables.h"

typedef struct {
  const char *rest; /* what has not been read yet */
  int64_t result;
} Calculation;

static int32_t next_token(void *context, void *value) {
  Calculation *calculation = context;
  char c = *calculation->rest;
  if (c == 0) return 0; /* the end of the input */
  ++calculation->rest;
  if (c == '+') return CALCULATOR_TOKEN_PLUS;
  if (c == '*') return CALCULATOR_TOKEN_TIMES;
  *(int64_t *)value = c - '0';
  return c >= '0' && c <= '9' ? CALCULATOR_TOKEN_NUMBER : INT16_MAX; /* one that fits nowhere */
}

/* Of "left + right" the values lie at last[-2] and last[0]. A number keeps its own. */
static int16_t reduce(void *context, void *last, int16_t rule, void *result) {
  int64_t *value = last, *own = result;
  if (rule == CALCULATOR_RULE_ADD) *own = value[-2] + value[0];
  if (rule == CALCULATOR_RULE_MULTIPLY) *own = value[-2] * value[0];
  ((Calculation *)context)->result = *own;
  return 0;
}

int main(void) {
  if (psp_init() != PSP_OKAY) return 1;
  static const char *const kTexts[] = {"2+3*4", "2+*3"};
  for (int i = 0; i < 2; ++i) {
    Calculation calculation = {kTexts[i], 0};
    psp_yyContext parse = {
        sizeof(int64_t), &calculation, &calculator_tables, next_token, reduce, NULL, NULL};
    int32_t failed = psp_yyparse(&parse); /* a syntax error, or no memory */
    psp_printf(failed ? "%s: stopped at \"%s\"\n" : "%s", kTexts[i], calculation.rest);
    if (!failed) psp_printf(" = %lld\n", calculation.result);
  }
  psp_term();
  return 0;
}
