// Module pspparse: the parser engine, a shift-reduce automaton over a client's parse tables.
//
// Owns nothing between parses. A parse has two stacks, of states and of values, which grow
// together, and two values beside them: the lookahead's, which the lexer fills, and the result's,
// which the action of a rule may change. All four are blocks of the client's tag, or of a private
// tag that ends with the parse. Without a client's tag a parse of small values begins on the
// thread's own stack and takes memory only if it gets deep.
//
// The client's functions are called with no lock held and outside any exported call: when one of
// their allocations fails in an armed tag, the jump leaves at once. Only the taking of memory is an
// exported call, which has given back everything when it fails.
#include <cstring>

#include "core/checked.h"
#include "core/exported_call.h"

namespace psp::parser {

namespace {

constexpr char kSource[] = "pspparse.cpp";

constexpr size_t kFirstEntries = 100;
constexpr size_t kMoreEntries = 50;
constexpr size_t kSmallValueBytes = 32;  // of a value that may begin on the thread's stack

// What stands in the tables beside states, tokens and rules.
constexpr int kOnlyDefault = -1000;  // yypact: this or less means that no token matters
constexpr int kByLookahead = -2;     // yydef: the action stands among the exceptions
constexpr int kSyntaxError = 0;      // an action

constexpr int kUnread = -1;  // no lookahead
constexpr int kEndOfInput = 0;

constexpr int16_t kAccepted = 0;
constexpr int16_t kAbandoned = 3;

// How a parse ended.
struct Outcome {
  int16_t status;
  bool call_error;
};

// ---- Memory of a parse --------------------------------------------------------------------------

// Values are zero-filled: a rule without symbols hands its action the one above the top as it is.
struct Memory {
  psp_tag *tag = nullptr;   // of the four blocks; null while all lies on the thread's stack
  bool is_private = false;  // the tag was made here, or will be
  size_t value_size = 0;
  size_t entries = 0;  // of each stack
  int16_t *states = nullptr;
  unsigned char *values = nullptr;
  void *result = nullptr;
  void *lookahead = nullptr;
};

struct FirstEntries {
  int16_t states[kFirstEntries];
  alignas(max_align_t) unsigned char values[kFirstEntries * kSmallValueBytes];
  alignas(max_align_t) unsigned char result[kSmallValueBytes];
  alignas(max_align_t) unsigned char lookahead[kSmallValueBytes];
};

// Bytes of entries; for more than memory can hold a size that no allocation grants. Values without
// bytes get blocks all the same.
size_t bytes_of(size_t entries, size_t entry_size) {
  const size_t bytes = multiply_or_most(entries, entry_size);
  return bytes != 0 ? bytes : 1;
}

bool make_private_tag(Memory *memory) {
  psp_tag *tag = psp_createTagEx(nullptr, 0, kSource, __LINE__);
  if (tag == PSP_TAG_FAILED) return false;
  memory->tag = tag;
  return true;
}

void end_private_tag(Memory *memory) {
  if (memory->is_private) psp_freeTagMemory(memory->tag, 1);
}

// Gives the four blocks back. A client's tag keeps what else it holds.
void give_back(Memory *memory) {
  if (memory->is_private) {
    end_private_tag(memory);
  } else {
    for (void *block : {static_cast<void *>(memory->states), static_cast<void *>(memory->values),
                        memory->result, memory->lookahead}) {
      psp_freeMem(block, memory->tag);
    }
  }
  memory->tag = nullptr;
}

// The four blocks of the first entries; false, with nothing taken, when memory is short.
bool take_blocks(Memory *memory) {
  if (memory->is_private && !make_private_tag(memory)) return false;
  const size_t stack_bytes = bytes_of(kFirstEntries, memory->value_size);
  const size_t value_bytes = bytes_of(1, memory->value_size);
  memory->states = static_cast<int16_t *>(psp_getMem(kFirstEntries * sizeof(int16_t), memory->tag,
                                                     PSP_MEM_ZERO, nullptr, kSource, __LINE__));
  if (memory->states != nullptr) {
    memory->values = static_cast<unsigned char *>(
        psp_getMem(stack_bytes, memory->tag, PSP_MEM_ZERO, nullptr, kSource, __LINE__));
  }
  if (memory->values != nullptr) {
    memory->result = psp_getMem(value_bytes, memory->tag, PSP_MEM_ZERO, nullptr, kSource, __LINE__);
  }
  if (memory->result != nullptr) {
    memory->lookahead =
        psp_getMem(value_bytes, memory->tag, PSP_MEM_ZERO, nullptr, kSource, __LINE__);
  }
  if (memory->lookahead != nullptr) return true;
  give_back(memory);
  return false;
}

// Moves the stacks from the thread's stack, with more entries, into a private tag. The two values
// do not grow and stay where they are.
bool move_into_tag(Memory *memory, size_t entries) {
  if (!make_private_tag(memory)) return false;
  auto *states = static_cast<int16_t *>(
      psp_getMem(entries * sizeof(int16_t), memory->tag, PSP_MEM_ZERO, nullptr, kSource, __LINE__));
  void *values = nullptr;
  if (states != nullptr) {
    values = psp_getMem(bytes_of(entries, memory->value_size), memory->tag, PSP_MEM_ZERO, nullptr,
                        kSource, __LINE__);
  }
  if (values == nullptr) return false;
  std::memcpy(states, memory->states, memory->entries * sizeof(int16_t));
  std::memcpy(values, memory->values, memory->entries * memory->value_size);
  memory->states = states;
  memory->values = static_cast<unsigned char *>(values);
  return true;
}

// Both blocks keep their content and get more entries. A failure leaves them valid.
bool extend_blocks(Memory *memory, size_t entries) {
  const size_t state_bytes = bytes_of(entries, sizeof(int16_t));
  void *states = psp_extendMem(memory->states, state_bytes, memory->tag, 1,
                               kMoreEntries * sizeof(int16_t), kSource, __LINE__);
  if (states == nullptr) return false;
  memory->states = static_cast<int16_t *>(states);
  const size_t value_bytes = bytes_of(entries, memory->value_size);
  void *values = psp_extendMem(memory->values, value_bytes, memory->tag, 1,
                               kMoreEntries * memory->value_size, kSource, __LINE__);
  if (values == nullptr) return false;
  memory->values = static_cast<unsigned char *>(values);
  return true;
}

// Makes room for more entries; false, with all memory of the parse given back, when it is short.
// The jump of an armed tag leaves from here.
[[gnu::cold, gnu::noinline]] bool grow(Memory *memory) {
  return core::exported_call([&] {
    const size_t entries = memory->entries + kMoreEntries;
    const bool on_thread_stack = memory->tag == nullptr;
    const bool grown =
        on_thread_stack ? move_into_tag(memory, entries) : extend_blocks(memory, entries);
    if (grown) {
      memory->entries = entries;
    } else {
      give_back(memory);
    }
    return grown;
  });
}

// ---- Rare steps of the automaton ----------------------------------------------------------------

// Whether the action table has the entry.
inline bool is_entry(const psp_yyTables &tables, intptr_t entry) {
  return static_cast<uintptr_t>(entry) < static_cast<uintptr_t>(intptr_t{tables.actionLength});
}

// The action for the lookahead in a state whose actions stand among the exceptions.
intptr_t exceptional_action(const int16_t *pair, intptr_t state, intptr_t lookahead) {
  while (pair[0] != -1 || pair[1] != state) pair += 2;
  do {
    pair += 2;
  } while (pair[0] != lookahead && pair[0] >= 0);
  return pair[1];
}

// The highest state on the stack that can take the error token, and the state that follows it;
// null when there is none.
const int16_t *find_recovery(const psp_yyTables &tables, const int16_t *bottom, const int16_t *top,
                             intptr_t *next) {
  for (const int16_t *state = top;; --state) {
    const int entry = tables.yypact[*state] + tables.errorToken;
    if (is_entry(tables, entry)) {
      *next = tables.yyact[entry];
      if (tables.yychk[*next] == tables.errorToken) return state;
    }
    if (state == bottom) return nullptr;
  }
}

inline intptr_t read_token(const psp_yyContext &context, void *value) {
  const auto token = static_cast<int16_t>(context.lexer(context.context, value));
  return token < 0 ? kEndOfInput : token;
}

// ---- The automaton ------------------------------------------------------------------------------

// The state and value stacks with their tops. Values of a size known here are moved as words.
template <size_t kSize>
struct Stacks {
  Memory *memory;
  size_t any_size;
  int16_t *top_state;
  unsigned char *top_value;
  const int16_t *last_state;  // reached: the stacks have to grow

  [[gnu::always_inline]] size_t value_size() const { return kSize != 0 ? kSize : any_size; }
  [[gnu::always_inline]] void copy(void *to, const void *from) const {
    std::memcpy(to, from, value_size());
  }

  [[gnu::always_inline]] void find_tops(size_t top) {
    top_state = memory->states + top;
    top_value = memory->values + top * value_size();
    last_state = memory->states + (memory->entries - 1);
  }

  [[gnu::always_inline]] void pop(size_t count) {
    top_state -= count;
    top_value -= count * value_size();
  }

  // False when memory is short.
  [[nodiscard, gnu::always_inline]] bool push(intptr_t state, const void *value) {
    ++top_state;
    top_value += value_size();
    if (top_state == last_state) [[unlikely]] {
      const auto top = static_cast<size_t>(top_state - memory->states);
      if (!grow(memory)) return false;
      find_tops(top);
    }
    *top_state = static_cast<int16_t>(state);
    copy(top_value, value);
    return true;
  }
};

// The state that the nonterminal of a rule leads to from the state on top.
inline intptr_t state_after(const psp_yyTables &tables, intptr_t nonterminal, intptr_t top_state) {
  const intptr_t base = tables.yypgo[nonterminal];
  const intptr_t entry = base + top_state + 1;
  if (is_entry(tables, entry)) {
    const intptr_t state = tables.yyact[entry];
    if (tables.yychk[state] == -nonterminal) return state;
  }
  return tables.yyact[base];
}

// A state that is reached goes to the stack together with the value that led there: the first state
// and its zero value are there already.
//
// No address of a local is handed out, tables included: what registers there are hold them. States,
// tokens and rules are as wide as an address, so that each indexes the tables as it is loaded.
template <size_t kSize>
[[gnu::noinline]] Outcome run(const psp_yyContext &context, Memory *memory) {
  const psp_yyTables tables = *context.tables;
  constexpr Outcome kNoMemory = {PSP_NOMEMORY, false};
  void *const lookahead_value = memory->lookahead;
  void *const result = memory->result;
  Stacks<kSize> stacks{memory, memory->value_size, nullptr, nullptr, nullptr};
  stacks.find_tops(0);
  intptr_t state = 0;
  intptr_t lookahead = kUnread;
  int error_state = 0;  // after an error 3, less one for each token shifted; a rule clears it

  for (;;) {
    const intptr_t offset = tables.yypact[state];
    if (offset > kOnlyDefault) {
      if (lookahead < 0) lookahead = read_token(context, lookahead_value);
      const intptr_t entry = offset + lookahead;
      if (is_entry(tables, entry)) {
        const intptr_t next = tables.yyact[entry];
        if (tables.yychk[next] == lookahead) [[likely]] {
          state = next;
          lookahead = kUnread;
          if (error_state > 0) [[unlikely]]
            --error_state;
          if (!stacks.push(state, lookahead_value)) return kNoMemory;
          continue;
        }
      }
    }

    intptr_t action = tables.yydef[state];
    if (action == kByLookahead) {
      if (lookahead < 0) lookahead = read_token(context, lookahead_value);
      action = exceptional_action(tables.yyexca, state, lookahead);
    }

    if (action <= kSyntaxError) [[unlikely]] {
      if (action < kSyntaxError) return {kAccepted, false};  // from either table
      if (error_state < 3) {
        error_state = 3;
        intptr_t next = 0;
        const int16_t *found =
            find_recovery(*context.tables, memory->states, stacks.top_state, &next);
        if (found == nullptr) return {kAbandoned, true};
        state = next;
        stacks.pop(static_cast<size_t>(stacks.top_state - found));
        if (!stacks.push(state, lookahead_value)) return kNoMemory;
      } else {
        // Read even where the state would not ask for it: each round uses up a token.
        if (lookahead < 0) lookahead = read_token(context, lookahead_value);
        if (lookahead == kEndOfInput) return {kAbandoned, false};
        lookahead = kUnread;
      }
      continue;
    }

    void *const last = stacks.top_value;
    stacks.pop(static_cast<size_t>(tables.yyr2[action]));
    stacks.copy(result, stacks.top_value + stacks.value_size());
    state = state_after(tables, tables.yyr1[action], *stacks.top_state);
    const int16_t status =
        context.action(context.context, last, static_cast<int16_t>(action), result);
    if (status != 0) return {status, false};
    error_state = 0;
    if (!stacks.push(state, result)) return kNoMemory;
  }
}

Outcome run_with_value_size(const psp_yyContext &context, Memory *memory) {
  switch (memory->value_size) {
    case 4:
      return run<4>(context, memory);
    case 8:
      return run<8>(context, memory);
    case 16:
      return run<16>(context, memory);
    default:
      return run<0>(context, memory);
  }
}

// Each of the two ways in its own function: only one needs the first entries on the thread's stack.
[[gnu::noinline]] Outcome parse_on_thread_stack(const psp_yyContext &context) {
  FirstEntries first;
  const size_t size = context.valueSize;
  first.states[0] = 0;  // no other is read before it is written
  std::memset(first.values, 0, kFirstEntries * size);
  std::memset(first.result, 0, sizeof first.result);
  std::memset(first.lookahead, 0, sizeof first.lookahead);
  Memory memory = {nullptr,      true,         size,         kFirstEntries,
                   first.states, first.values, first.result, first.lookahead};
  const Outcome outcome = run_with_value_size(context, &memory);
  end_private_tag(&memory);
  return outcome;
}

Outcome parse_in_tag(const psp_yyContext &context) {
  Memory memory = {.tag = context.tag,
                   .is_private = context.tag == nullptr,
                   .value_size = context.valueSize,
                   .entries = kFirstEntries};
  if (!core::exported_call([&] { return take_blocks(&memory); })) return {PSP_NOMEMORY, false};
  const Outcome outcome = run_with_value_size(context, &memory);
  end_private_tag(&memory);
  return outcome;
}

}  // namespace

}  // namespace psp::parser

using namespace psp::parser;

int16_t psp_yyparse(const psp_yyContext *context) {
  if (context == nullptr || context->tables == nullptr || context->lexer == nullptr ||
      context->action == nullptr) {
    return PSP_ERR_INVARG;
  }
  const bool is_small = context->tag == nullptr && context->valueSize <= kSmallValueBytes;
  const Outcome outcome = is_small ? parse_on_thread_stack(*context) : parse_in_tag(*context);
  // The parse's own memory is gone already: what the function does, it may do for long.
  if (outcome.call_error && context->error != nullptr) context->error(context->context);
  return outcome.status;
}
