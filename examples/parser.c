/* The parser engine: a calculator. calculator.y holds its grammar, from which
 * tools/make_parser_tables has made calculator_tables.h; lexer and actions stand here. */
#include <psp.h>

#include "calculator_tables.h"

typedef struct {
  const char *rest; /* what has not been read yet */
  int64_t result;
} Calculation;

/* Numbers have one digit. */
static int32_t next_token(void *context, void *value) {
  Calculation *calculation = context;
  while (*calculation->rest == ' ') ++calculation->rest;
  char c = *calculation->rest;
  if (c == 0) return 0; /* the end of the input */
  ++calculation->rest;
  if (c == '+') return CALCULATOR_TOKEN_PLUS;
  if (c == '*') return CALCULATOR_TOKEN_TIMES;
  if (c < '0' || c > '9') return INT16_MAX; /* a token that fits nowhere */
  *(int64_t *)value = c - '0';
  return CALCULATOR_TOKEN_NUMBER;
}

/* Of "left + right" the values lie at last[-2] and last[0]. A number keeps its own. */
static int16_t reduce(void *context, void *last, int16_t rule, void *result) {
  int64_t *value = last, *own = result;
  if (rule == CALCULATOR_RULE_ADD) *own = value[-2] + value[0];
  if (rule == CALCULATOR_RULE_MULTIPLY) *own = value[-2] * value[0];
  ((Calculation *)context)->result = *own;
  return 0;
}

static void calculate(const char *text) {
  Calculation calculation = {text, 0};
  psp_yyContext parse = {
      sizeof(int64_t), &calculation, &calculator_tables, next_token, reduce, NULL, NULL};
  if (psp_yyparse(&parse) == 0) {
    psp_printf("%s = %lld\n", text, calculation.result);
  } else { /* a syntax error, or no memory */
    psp_printf("%s: cannot go on at \"%s\"\n", text, calculation.rest);
  }
}

int main(void) {
  if (psp_init() != PSP_OKAY) return 1;
  calculate("2 + 3 * 4");
  calculate("2 + * 3");
  psp_term();
  return 0;
}
