// The parser engine over the tables of small grammars: what it computes, how deep it gets, how it
// meets syntax errors, and that values of any size arrive whole.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include "../examples/pkgdb/query_tables.h"
#include "parser/grammars/dropping_tables.h"
#include "parser/grammars/expressions_tables.h"
#include "parser/grammars/statements_tables.h"
#include "psp.h"
#include "support/fixtures.h"

namespace {

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr size_t kDeep = 50000;
#else
constexpr size_t kDeep = 1000000;
#endif

// One parse. A value of any size holds a number, and in its last byte the number's lowest again.
struct Parse {
  struct Token {
    int32_t number;
    uint32_t value = 0;
  };

  const psp_yyTables *tables;
  std::vector<Token> input = {};
  std::function<int16_t(Parse &, int16_t)> action = [](Parse &, int16_t) { return int16_t{0}; };
  uint32_t size = 8;
  psp_tag *tag = nullptr;
  int32_t end = -1;
  // While it runs:
  size_t next = 0;
  int errors = 0;
  std::string told = {};
  unsigned char *last = nullptr, *result = nullptr;

  uint32_t read(const unsigned char *value) const {
    uint32_t number = 0;
    std::memcpy(&number, value, std::min<size_t>(size, sizeof number));
    EXPECT_TRUE(size <= sizeof number || value[size - 1] == (number & 0xFF));
    return number;
  }
  void write(unsigned char *value, uint32_t number) const {
    std::memset(value, static_cast<int>(number & 0xFF), size);
    std::memcpy(value, &number, std::min<size_t>(size, sizeof number));
  }
  uint32_t before_last(uint32_t count) const { return read(last - size_t{count} * size); }
  int16_t give(uint32_t number) const {
    write(result, number);
    return 0;
  }

  int16_t run() {
    const psp_yyContext context = {size,
                                   this,
                                   tables,
                                   [](void *self, void *value) {
                                     auto &parse = *static_cast<Parse *>(self);
                                     if (parse.next == parse.input.size()) return parse.end;
                                     const Token token = parse.input[parse.next++];
                                     parse.write(static_cast<unsigned char *>(value), token.value);
                                     return token.number;
                                   },
                                   [](void *self, void *last, int16_t rule, void *result) {
                                     auto &parse = *static_cast<Parse *>(self);
                                     parse.last = static_cast<unsigned char *>(last);
                                     parse.result = static_cast<unsigned char *>(result);
                                     return parse.action(parse, rule);
                                   },
                                   [](void *self) { ++static_cast<Parse *>(self)->errors; },
                                   tag};
    return psp_yyparse(&context);
  }
};

using Parser = psp::tests::Started;

// ---- Expressions --------------------------------------------------------------------------------

uint32_t compute(int16_t rule, uint32_t left, uint32_t right) {
  const uint32_t results[] = {left + right,     left - right, left * right, left / (right | !right),
                              3 * left + right, left < right};
  return results[rule - EXPRESSIONS_RULE_ADD];
}

Parse expressions(const std::string &text) {
  Parse parse{&expressions_tables};
  for (const char letter : text) {
    static const std::string kLetters = "....0();+-*/^<";  // a token's number is its place
    const bool is_digit = letter >= '0' && letter <= '9';
    parse.input.push_back({static_cast<int32_t>(kLetters.find(is_digit ? '0' : letter)),
                           static_cast<uint32_t>(letter - '0')});
  }
  parse.action = [](Parse &self, int16_t rule) -> int16_t {
    if (rule == EXPRESSIONS_RULE_END) self.told += std::to_string(self.before_last(1)) + ";";
    if (rule == EXPRESSIONS_RULE_GROUP) return self.give(self.before_last(1));
    if (rule == EXPRESSIONS_RULE_NEGATE) return self.give(0 - self.before_last(0));
    if (rule < EXPRESSIONS_RULE_ADD || rule > EXPRESSIONS_RULE_LESS) return 0;
    EXPECT_EQ(self.read(self.result), self.before_last(2));  // the first symbol's value
    return self.give(compute(rule, self.before_last(2), self.before_last(0)));
  };
  return parse;
}

TEST_F(Parser, ComputesWithValuesOfAnySize) {
  psp_tag *tag = psp_createTag(0);
  for (const uint32_t size : {4, 5, 8, 16, 32, 33, 100}) {
    Parse parse = expressions("1+2*3;2*3+1;8-3-2;(8-(3-2));1^2^3;-2*3;--5;2*(3<4);9/4*2;");
    parse.size = size;
    EXPECT_EQ(parse.run(), 0) << size;
    EXPECT_EQ(parse.told, "7;7;3;7;12;4294967290;5;2;4;") << size;
    parse = expressions("1-(2-(3-(4-5)));");
    parse.size = size;
    parse.tag = tag;
    EXPECT_EQ(parse.run(), 0) << size;
    EXPECT_EQ(parse.told, "3;") << size;
  }
  psp_freeTagMemory(tag, 1);
}

TEST_F(Parser, EmptyInputEndsAtZeroOrAnyNegativeToken) {
  for (const int32_t end : {0, -1, 0x8000, 0xFFFF, 0x7FFF8000, 0x10000, INT32_MIN}) {
    Parse parse = expressions("");
    parse.end = end;
    EXPECT_EQ(parse.run(), 0) << end;
    parse = expressions("1+2;3<4;");
    parse.end = end;
    EXPECT_EQ(parse.run(), 0) << end;
    EXPECT_EQ(parse.told, "3;1;");
  }
}

// ---- Ends of other kinds ------------------------------------------------------------------------

TEST_F(Parser, ErrorWithoutARuleForItIsToldOnce) {
  for (const char *text : {"1+;", "1;+", ")", "1<2<3;", "1", "((1);"}) {
    Parse parse = expressions(text);
    EXPECT_EQ(parse.run(), 3) << text;
    EXPECT_EQ(parse.errors, 1) << text;
  }
}

TEST_F(Parser, ActionEndsTheParseWithItsOwnResult) {
  for (const int status : {7, 3, -1, INT16_MIN, INT16_MAX}) {
    Parse parse = expressions("1+2+3;");
    parse.action = [status](Parse &self, int16_t rule) {
      self.told += std::to_string(rule) + " ";
      return static_cast<int16_t>(rule == EXPRESSIONS_RULE_ADD ? status : 0);
    };
    EXPECT_EQ(parse.run(), status);
    EXPECT_EQ(parse.told + std::to_string(parse.errors), "1 11 11 3 0");
  }
}

TEST_F(Parser, NegativeActionOfEitherTableAccepts) {
  const std::vector<int16_t> exceptions = {-1, 0, -1, -1};
  const int16_t zeros[8] = {}, only_default[8] = {-1000};
  for (const int16_t action : {-1, -2, -3, INT16_MIN}) {
    const int16_t defaults[1] = {action};
    const psp_yyTables tables = {1,     1,     exceptions.data(), zeros, only_default, zeros, zeros,
                                 zeros, zeros, defaults};
    Parse parse{&tables};
    EXPECT_EQ(parse.run(), 0) << action;
    EXPECT_EQ(parse.told + std::to_string(parse.errors), "0");
  }
}

TEST(ParserArguments, MissingPartsAreRefused) {
  Parse parse = expressions("");
  const psp_yyContext whole = {8,
                               &parse,
                               &expressions_tables,
                               [](void *, void *) { return int32_t{-1}; },
                               [](void *, void *, int16_t, void *) { return int16_t{0}; },
                               nullptr,
                               nullptr};
  psp_yyContext without[3] = {whole, whole, whole};
  without[0].tables = nullptr;
  without[1].lexer = nullptr;
  without[2].action = nullptr;
  for (const psp_yyContext &context : without) EXPECT_EQ(psp_yyparse(&context), PSP_ERR_INVARG);
  EXPECT_EQ(psp_yyparse(nullptr), PSP_ERR_INVARG);
  EXPECT_EQ(psp_yyparse(&whole), 0);
  psp_yyContext failing = whole;  // and nobody to tell
  failing.lexer = [](void *, void *) { return int32_t{1}; };
  EXPECT_EQ(psp_yyparse(&failing), 3);
}

// ---- Recovery -----------------------------------------------------------------------------------

// n NAME, # NUMBER, = IS, & AND, ; END, ! a token that the grammar lacks. A token's value is its
// place; told are the rules with the value of their first symbol, and an error.
std::string statements(const std::string &text) {
  Parse parse{&statements_tables};
  for (size_t place = 0; place < text.size(); ++place) {
    static const std::string kLetters = "....n#=&;()!";
    parse.input.push_back(
        {static_cast<int32_t>(kLetters.find(text[place])), static_cast<uint32_t>(place)});
  }
  parse.action = [](Parse &self, int16_t rule) -> int16_t {
    constexpr uint32_t kProgram = 1000;
    if (rule == STATEMENTS_RULE_BEGIN) return self.give(kProgram);
    EXPECT_TRUE(rule != STATEMENTS_RULE_MORE || self.before_last(1) == kProgram);
    static const char *const kNames[] = {"",       "",      "", "assign", "skip",
                                         "resume", "again", "", "",       "join"};
    if (*kNames[rule] == '\0') return 0;
    self.told += kNames[rule] + std::to_string(self.read(self.result)) + " ";
    return 0;
  };
  const int16_t status = parse.run();
  return parse.told + std::to_string(status) + (parse.errors != 0 ? " error" : "");
}

TEST_F(Parser, RecoveryDropsTokensUntilOneFits) {
  const std::vector<std::pair<std::string, std::string>> cases = {
      {"n=#&#;n=#;", "join2 assign0 assign6 0"},
      {"n=n==!;n=#;", "skip2 assign7 0"},  // "error" has the value of the token it met
      {"!;;n=#;", "skip0 skip2 assign3 0"},
      {"n=#&!#n;n=#;", "resume4 assign8 0"},
      // An error among the first three tokens behind another one starts anew.
      {"!#=n;n=#;", "skip2 assign5 0"},
      {"!#n#;n=#;", "skip4 assign5 0"},
      // A rule that ends with "error" ends the dropping: "!" is met again, by the rule behind it.
      {"&!;n=#;", "again0 skip1 assign3 0"},
      // The end of input is not dropped.
      {"n=#;!", "assign0 3"},
      {"n=", "3"},
      {"!#n", "3"},
  };
  for (const auto &[text, told] : cases) EXPECT_EQ(statements(text), told) << text;
}

TEST_F(Parser, StateThatDoesNotLookDropsAllTokensAtAnyDepth) {
  for (size_t depth = 96; depth < 101; ++depth) {
    for (const uint32_t size : {4, 5, 8, 16}) {
      Parse parse{.tables = &dropping_tables, .size = size};
      parse.input.assign(depth, {STATEMENTS_TOKEN_OPEN});
      parse.input.insert(parse.input.end(), 3, {STATEMENTS_TOKEN_CLOSE});
      EXPECT_EQ(parse.run(), 3);
      EXPECT_EQ(parse.next, depth + 3);
    }
  }
}

// ---- Depth --------------------------------------------------------------------------------------

// Values of open brackets, each its own depth, must be found again from the inside out.
void check_depth(size_t depth, uint32_t size, psp_tag *tag) {
  Parse parse{.tables = &statements_tables, .size = size, .tag = tag};
  for (size_t at = 0; at < 2 * depth; ++at)
    parse.input.push_back({at < depth ? STATEMENTS_TOKEN_OPEN : STATEMENTS_TOKEN_CLOSE,
                           static_cast<uint32_t>(at + 1)});
  size_t left = depth;
  parse.action = [&](Parse &self, int16_t rule) -> int16_t {
    if (rule == STATEMENTS_RULE_MIDDLE) {  // above the top nothing was written yet
      EXPECT_TRUE(std::all_of(self.result, self.result + size, [](char c) { return c == 0; }));
    } else if ((rule == STATEMENTS_RULE_WRAP || rule == STATEMENTS_RULE_OUTERMOST) && size >= 4) {
      EXPECT_EQ(self.before_last(2), left--);
    }
    return 0;
  };
  EXPECT_EQ(parse.run(), 0) << depth << " " << size;
  EXPECT_TRUE(left == 0 || size < 4);
}

TEST_F(Parser, StacksGrowAtTheirLimits) {
  psp_tag *tag = psp_createTag(0);
  for (const size_t limit : {0, 100, 150, 200, 250}) {
    for (size_t depth = limit < 4 ? 0 : limit - 4; depth < limit + 3; ++depth) {
      for (const uint32_t size : {0, 1, 4, 8, 16, 24, 32, 33, 1000}) {
        check_depth(depth, size, nullptr);
        check_depth(depth, size, tag);
      }
    }
    psp_freeTagMemory(tag, 0);
  }
  psp_freeTagMemory(tag, 1);
}

TEST_F(Parser, DepthHasNoLimit) { check_depth(kDeep, 8, nullptr); }

TEST_F(Parser, ParsesOfManyThreadsShareTablesAndATag) {
  psp_tag *tag = psp_createTag(PSP_TAG_THREADSAFE);
  psp::tests::in_threads(4, [tag](int) {
    for (size_t depth = 0; depth < 400; depth += 9) check_depth(depth, 8, tag);
    for (size_t depth = 0; depth < 400; depth += 9) check_depth(depth, 8, nullptr);
  });
  psp_freeTagMemory(tag, 1);
}

// ---- The example's grammar ----------------------------------------------------------------------

TEST_F(Parser, QueryBindsAndBeforeOrAndNotFirst) {
  // not a = "b" or c >= 1 and (d < 2) order by e desc limit 3; tokens and rules by their letters
  Parse parse{&query_tables};
  for (const char letter : std::string("!n=s|ng1&(n<1)OBnDL1")) {
    static const std::string kLetters = "....ns1=#<l>g()OBDL|&!";
    parse.input.push_back({static_cast<int32_t>(kLetters.find(letter))});
  }
  parse.action = [](Parse &self, int16_t rule) -> int16_t {
    self.told += ".Q*F|&!)C=#<l>gs1uUD-L"[rule];
    return 0;
  };
  EXPECT_EQ(parse.run(), 0);
  EXPECT_EQ(parse.told, "=sC!g1C<1C)&|FDLQ");
}

}  // namespace
