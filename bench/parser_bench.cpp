// The parser engine beside a parser that bison makes from the same rules, with the same lexer.
#include <random>
#include <string>
#include <vector>

#include "bench.h"
#include "parser_input.h"
#include "psp.h"

namespace {

using benchmark::State;
using psp_bench::add_case;

constexpr size_t kTokens = 1000000;
constexpr size_t kStatements = 1000;

int32_t lex(void *input, void *value) {
  return next_token(static_cast<Input *>(input), static_cast<uint64_t *>(value));
}

int16_t act(void *input, void *last, int16_t rule, void *result) {
  const auto *right = static_cast<const uint64_t *>(last);
  auto &value = *static_cast<uint64_t *>(result);
  switch (rule) {
    case EXPRESSIONS_RULE_END:
      static_cast<Input *>(input)->sum += right[-1];
      break;
    case EXPRESSIONS_RULE_ADD:
      value = right[-2] + right[0];
      break;
    case EXPRESSIONS_RULE_SUBTRACT:
      value = right[-2] - right[0];
      break;
    case EXPRESSIONS_RULE_MULTIPLY:
      value = right[-2] * right[0];
      break;
    case EXPRESSIONS_RULE_DIVIDE:
      value = quotient(right[-2], right[0]);
      break;
    case EXPRESSIONS_RULE_RAISE:
      value = raised(right[-2], right[0]);
      break;
    case EXPRESSIONS_RULE_LESS:
      value = right[-2] < right[0];
      break;
    case EXPRESSIONS_RULE_NEGATE:
      value = 0 - right[0];
      break;
    case EXPRESSIONS_RULE_GROUP:
      value = right[-1];
      break;
    default:
      break;
  }
  return 0;
}

int parse_with_psp(Input *input) {
  const psp_yyContext context = {sizeof(uint64_t), input,  &expressions_tables, lex, act,
                                 nullptr,          nullptr};
  return psp_yyparse(&context);
}

// Expressions of some tokens each, and the number of tokens that they have together.
std::vector<std::string> expressions(size_t tokens, size_t count) {
  std::minstd_rand random(11);
  std::vector<std::string> made;
  for (size_t so_far = 0; so_far < tokens && made.size() < count;) {
    std::string text;
    for (size_t terms = 1 + random() % 8; terms > 0; --terms) {
      const std::string number = std::to_string(random() % 10000);
      const bool group = random() % 3 == 0;
      text += group ? "(-" + number + "<" + std::to_string(random() % 100) + ")" : number;
      text += terms > 1 ? "+-*/^"[random() % 5] : ';';
      so_far += group ? 7 : 2;
    }
    made.push_back(text);
  }
  return made;
}

psp_bench::Contender contender(const char *name, int (*parse)(Input *),
                               const std::vector<std::string> &texts, double at_most) {
  return {name,
          [parse, &texts](State &state) {
            Input input = {};
            for (auto _ : state) {
              input.sum = 0;
              for (const std::string &text : texts) {
                input.next = text.data();
                input.end = text.data() + text.size();
                if (parse(&input) != 0) state.SkipWithError("a parse failed");
              }
            }
            return input.sum;
          },
          at_most};
}

void add_cases(const std::string &name, const std::vector<std::string> &texts) {
  add_case(name, {contender("psp", parse_with_psp, texts, 0),
                  contender("bison", parse_with_bison, texts, 0.9)});
}

const psp_bench::Registration registration([] {
  static std::vector<std::string> one(1);
  for (const std::string &text : expressions(kTokens, SIZE_MAX)) one[0] += text;
  static const std::vector<std::string> many = expressions(SIZE_MAX, kStatements);
  add_cases("parser/a million tokens", one);
  add_cases("parser/1,000 short statements", many);
});

}  // namespace
