/* Tables made by hand: brackets that open, any number of them, and behind the first other token a
 * state that takes nothing and does not look: every token up to the end is dropped. The tokens are
 * those of statements.y. */
#pragma once

#include "parser/grammars/statements_tables.h"

inline constexpr int16_t dropping_act[] = {0, 0, 2, 0, 0, 0, 0, 0, 0, 1};
inline constexpr int16_t dropping_pact[] = {0, 0, -1000}, dropping_def[] = {0, 0, 0};
inline constexpr int16_t dropping_chk[] = {-1, STATEMENTS_TOKEN_OPEN, 2};
inline constexpr psp_yyTables dropping_tables = {2,
                                                 10,
                                                 statements_yyexca,
                                                 dropping_act,
                                                 dropping_pact,
                                                 dropping_def,
                                                 dropping_def,
                                                 dropping_def,
                                                 dropping_chk,
                                                 dropping_def};
