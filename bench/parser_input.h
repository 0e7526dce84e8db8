/* What both parsers of bench/parser_bench.cpp share: the lexer, the sum of the results, and what
 * the rules compute. */
#ifndef PARSER_INPUT_H
#define PARSER_INPUT_H

#include <stdint.h>

#include "../tests/parser/grammars/expressions_tables.h"

typedef struct {
  const char *next;
  const char *end;
  uint64_t sum; /* of the results of all expressions */
} Input;

static inline int32_t next_token(Input *input, uint64_t *value) {
  if (input->next == input->end) return 0;
  const char letter = *input->next++;
  switch (letter) {
    case '+':
      return EXPRESSIONS_TOKEN_PLUS;
    case '-':
      return EXPRESSIONS_TOKEN_MINUS;
    case '*':
      return EXPRESSIONS_TOKEN_TIMES;
    case '/':
      return EXPRESSIONS_TOKEN_DIVIDE;
    case '^':
      return EXPRESSIONS_TOKEN_POWER;
    case '<':
      return EXPRESSIONS_TOKEN_LESS;
    case '(':
      return EXPRESSIONS_TOKEN_OPEN;
    case ')':
      return EXPRESSIONS_TOKEN_CLOSE;
    case ';':
      return EXPRESSIONS_TOKEN_END;
    default:
      *value = (uint64_t)(letter - '0');
      while (input->next != input->end && *input->next >= '0' && *input->next <= '9')
        *value = *value * 10 + (uint64_t)(*input->next++ - '0');
      return EXPRESSIONS_TOKEN_NUMBER;
  }
}

static inline uint64_t quotient(uint64_t left, uint64_t right) {
  return right == 0 ? 0 : left / right;
}
static inline uint64_t raised(uint64_t left, uint64_t right) { return 3 * left + right; }

#if defined(__cplusplus)
extern "C"
#endif
    int
    parse_with_bison(Input *input);

#endif
