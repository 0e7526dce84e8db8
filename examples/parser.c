/* The parser engine: a calculator. calculator.y holds its grammar, from which
 * tools/make_parser_tables has made calculator_tables.h; lexer and actions stand here. */
#include <psp.h>

#include "calculator_tables.h"

typedef struct {
  const char *rest; /* what has not been read yet */
  int64_t result;
} Calculation;

static int32_t next_token(void *context, void *value) {
  Calculation *calculation = context;
  while (*calculation->rest == ' ') ++calculation->rest;
  char c = *calculation->rest;
  if (c == 0) return 0; /* the end of the input */
  if (c < '0' || c > '9') {
    ++calculation->rest;
    return c == '+'   ? CALCULATOR_TOKEN_PLUS
           : c == '*' ? CALCULATOR_TOKEN_TIMES
                      : INT16_MAX; /* a token that fits nowhere */
  }
  int64_t number = 0;
  for (; (c = *calculation->rest) >= '0' && c <= '9'; ++calculation->rest) {
    if (number > 100000) return INT16_MAX;
    number = 10 * number + (c - '0');
  }
  *(int64_t *)value = number;
  return CALCULATOR_TOKEN_NUMBER;
}

/* Of "left + right" the operands' values lie at last[-2] and last[0]. */
static int16_t reduce(void *context, void *last, int16_t rule, void *result) {
  int64_t *value = last, *sum = result;
  if (rule == CALCULATOR_RULE_ADD) *sum = value[-2] + value[0];
  if (rule == CALCULATOR_RULE_MULTIPLY) *sum = value[-2] * value[0];
  ((Calculation *)context)->result = *sum;
  return 0;
}

static void calculate(const char *text) {
  Calculation calculation = {text, 0};
  psp_yyContext parse = {.valueSize = sizeof(int64_t),
                         .context = &calculation,
                         .tables = &calculator_tables,
                         .lexer = next_token,
                         .action = reduce};
  if (psp_yyparse(&parse) == 0) {
    psp_printf("%s = %lld\n", text, calculation.result);
  } else {
    psp_printf("%s: an error at \"%s\"\n", text, calculation.rest);
  }
}

int main(void) {
  if (psp_init() != PSP_OKAY) return 1;
  calculate("2 + 3 * 4");
  calculate("10 * 10 * 10 + 1");
  calculate("2 + * 3");
  psp_term();
  return 0;
}
