/* The peer of bench/parser_bench.cpp, for the generator of Debian's package bison: the rules of
 * tests/parser/grammars/expressions.y, with the numbers of their tokens, and what they compute. */
%define api.pure full
%define api.prefix {bison_}
%define api.value.type {uint64_t}
%param {Input *input}
%code requires {
#include "parser_input.h"
}
%code {
static int bison_lex(uint64_t *value, Input *input) { return next_token(input, value); }
static void bison_error(Input *input, const char *message) {
  (void)input;
  (void)message;
}
}
%token NUMBER 4 OPEN 5 CLOSE 6 END 7
%left PLUS 8 MINUS 9
%left TIMES 10 DIVIDE 11
%right POWER 12
%nonassoc LESS 13
%left NEGATIVE 14
%%
list
    : %empty
    | list sum END             { input->sum += $2; }
    ;
sum
    : sum PLUS sum             { $$ = $1 + $3; }
    | sum MINUS sum            { $$ = $1 - $3; }
    | sum TIMES sum            { $$ = $1 * $3; }
    | sum DIVIDE sum           { $$ = quotient($1, $3); }
    | sum POWER sum            { $$ = raised($1, $3); }
    | sum LESS sum             { $$ = $1 < $3; }
    | MINUS sum %prec NEGATIVE { $$ = 0 - $2; }
    | OPEN sum CLOSE           { $$ = $2; }
    | NUMBER
    ;
%%
int parse_with_bison(Input *input) { return bison_parse(input); }
