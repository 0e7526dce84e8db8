// Faults under the parser engine: where a parse takes memory, and what is left when there is none.
#include <gtest/gtest.h>

#include "parser/grammars/dropping_tables.h"
#include "support/faults.h"

namespace {

using namespace psp::faults;

psp_tag *tag;
size_t left_to_open, left_to_close;
int16_t status;
int errors;
bool allocates;  // the action does, in the tag

// Parses brackets as deep as told, with values of the size, in the tag (null: in a private one).
bool parse(size_t depth, uint32_t size, psp_tag *owner,
           const psp_yyTables *tables = &statements_tables) {
  left_to_open = left_to_close = depth;
  const psp_yyContext context = {
      size,
      nullptr,
      tables,
      [](void *, void *) -> int32_t {
        if (left_to_open > 0) return --left_to_open, STATEMENTS_TOKEN_OPEN;
        return left_to_close > 0 ? (--left_to_close, STATEMENTS_TOKEN_CLOSE) : -1;
      },
      [](void *, void *, int16_t, void *) -> int16_t {
        return allocates && psp_alloc(10, tag) == nullptr ? 7 : 0;
      },
      [](void *) { ++errors; },
      owner};
  errors = 0;
  status = -1;
  status = psp_yyparse(&context);
  return status == (tables == &statements_tables ? 0 : 3);
}

void make_tag() { tag = psp_createTag(0); }
void end_tag() { psp_freeTagMemory(tag, 1); }

struct Case {
  size_t depth;
  uint32_t size;
  bool has_tag;
  uint32_t allocations;  // a private tag is one, its four blocks and a growth of both stacks more
};
constexpr Case kCases[] = {
    {90, 32, false, 0},  {110, 32, false, 3}, {160, 8, false, 5}, {0, 33, false, 5},
    {160, 33, false, 9}, {0, 8, true, 4},     {160, 8, true, 8},  {0, 0, true, 4},
};

bool parse(const Case &each) { return parse(each.depth, each.size, each.has_tag ? tag : nullptr); }

FAULT_TEST(ParserFaults, MemoryIsTakenOnlyWhereItIsNeeded) {
  EXPECT_EQ(psp_init(), PSP_OKAY);
  for (const Case &each : kCases) {
    make_tag();
    arm({.kind = Kind::kAllocation, .nth = 1000});
    EXPECT_TRUE(parse(each));
    EXPECT_EQ(disarm().allocations, each.allocations) << each.depth << " " << each.size;
    end_tag();
  }
  psp_term();
}

FAULT_TEST(ParserFaults, ParseThatLacksMemoryGivesAllBack) {
  for (const Case &each : kCases) {
    if (each.allocations == 0) continue;
    Scenario scenario{.sweeps = kAllocations | (each.has_tag ? kJumps : 0u), .armed_tag = &tag};
    scenario.prepare = make_tag;
    scenario.act = [&each] { return parse(each); };
    scenario.judge = [](const Run &run) {
      EXPECT_EQ(status, run.worked ? 0 : run.jumped ? -1 : PSP_NOMEMORY);
      EXPECT_EQ(errors, 0);
    };
    // Only a parse that worked may leave something in the client's tag.
    scenario.clean = [] { psp_freeTagMemory(status == 0 ? tag : nullptr, 0); };
    scenario.finish = end_tag;
    sweep(scenario);
  }
}

// Where the next token, a rule's symbol or the error is what finds the stacks full.
FAULT_TEST(ParserFaults, EachPushThatLacksMemoryGivesAllBack) {
  for (const uint32_t size : {4, 8, 16, 33}) {
    for (const size_t depth : {97, 98, 110}) {
      Scenario scenario;
      scenario.act = [=] {
        return depth == 98 ? parse(depth, size, nullptr, &dropping_tables)
                           : parse(depth, size, nullptr);
      };
      scenario.judge = [](const Run &run) { EXPECT_TRUE(run.worked || status == PSP_NOMEMORY); };
      sweep(scenario);
    }
  }
}

FAULT_TEST(ParserFaults, ActionJumpsOutOfTheParse) {
  Scenario scenario{.sweeps = kAllocations | kJumps, .armed_tag = &tag};
  scenario.prepare = [] {
    make_tag();
    allocates = true;
  };
  scenario.act = [] { return parse(160, 8, tag); };
  scenario.judge = [](const Run &run) {
    const bool expected = run.worked ? status == 0 : status == PSP_NOMEMORY || status == 7;
    EXPECT_TRUE(run.jumped ? status == -1 : expected) << status;
  };
  scenario.clean = [] { psp_freeTagMemory(tag, 0); };
  scenario.finish = [] {
    end_tag();
    allocates = false;
  };
  sweep(scenario);
}

}  // namespace
