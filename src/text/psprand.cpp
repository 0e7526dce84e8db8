// Module psprand: pseudo-random generators, each a 32-bit Mersenne Twister (MT19937) with its
// published parameters, seeding and tempering.
//
// A generator's record is a block of the default tag and belongs to the client. It has no lock: one
// thread at a time uses it.
#include <cstring>

#include "core/exported_call.h"

namespace {

constexpr char kSource[] = "psprand.cpp";

constexpr int kWords = 624;
constexpr int kShift = 397;
constexpr uint32_t kTwistMatrix = 0x9908B0DF;
constexpr uint32_t kHighBit = 0x80000000;
constexpr uint32_t kSeedMultiplier = 1812433253;
constexpr uint32_t kDefaultSeed = 0x8DF1337C;
constexpr uint32_t kSmallNumberMask = 0x7FFF;

}  // namespace

struct psp_rand {
  const uint32_t *cursor;  // the next word to be drawn
  const uint32_t *end;     // of the state
  uint32_t state[kWords];
};

namespace psp::text {
namespace {

// Four words side by side; the compiler has vector instructions for it or takes them one by one.
typedef uint32_t Words __attribute__((vector_size(16)));
constexpr int kLanes = 4;

Words load(const uint32_t *from) {
  Words words;
  std::memcpy(&words, from, sizeof words);
  return words;
}

template <class Word>
Word twist(Word here, Word next, Word shifted) {
  const Word mixed = (here & kHighBit) | (next & ~kHighBit);
  return shifted ^ (mixed >> 1) ^ ((0 - (mixed & 1)) & kTwistMatrix);
}

// Twists words from..to-1 of the state with those so far away. Four at a time are independent: the
// nearest of the words that a new one depends on is that behind it, still old.
void twist_range(uint32_t *state, int from, int to, int distance) {
  int index = from;
  for (; index + kLanes <= to; index += kLanes) {
    const Words words =
        twist(load(state + index), load(state + index + 1), load(state + index + distance));
    std::memcpy(state + index, &words, sizeof words);
  }
  for (; index < to; ++index) {
    state[index] = twist(state[index], state[index + 1], state[index + distance]);
  }
}

void regenerate(psp_rand *generator) {
  uint32_t *state = generator->state;
  twist_range(state, 0, kWords - kShift, kShift);
  twist_range(state, kWords - kShift, kWords - 1, kShift - kWords);
  state[kWords - 1] = twist(state[kWords - 1], state[0], state[kShift - 1]);
  generator->cursor = state;
}

void seed_generator(psp_rand *generator, uint32_t seed) {
  uint32_t word = seed;
  generator->state[0] = word;
  for (uint32_t index = 1; index < kWords; ++index) {
    word = kSeedMultiplier * (word ^ (word >> 30)) + index;
    generator->state[index] = word;
  }
  regenerate(generator);
}

[[gnu::noinline, gnu::cold]] void regenerate_between_draws(psp_rand *generator) {
  regenerate(generator);
}

inline uint32_t draw(psp_rand *generator) {
  if (generator->cursor == generator->end) [[unlikely]]
    regenerate_between_draws(generator);
  uint32_t word = *generator->cursor++;
  word ^= word >> 11;
  word ^= (word << 7) & 0x9D2C5680;
  word ^= (word << 15) & 0xEFC60000;
  return word ^ (word >> 18);
}

}  // namespace
}  // namespace psp::text

using namespace psp::text;

psp_rand *psp_randCreate(uint32_t seed) {
  return psp::core::exported_call([&] {
    auto *generator = static_cast<psp_rand *>(
        psp_getMem(sizeof(psp_rand), nullptr, PSP_MEM_ALLOC, nullptr, kSource, __LINE__));
    if (generator == nullptr) return generator;
    generator->end = generator->state + kWords;
    seed_generator(generator, seed != 0 ? seed : kDefaultSeed);
    return generator;
  });
}

void psp_randDestroy(psp_rand *generator) { psp_freeMem(generator, nullptr); }

void psp_randResetSeed(psp_rand *generator, uint32_t seed) {
  if (generator != nullptr) seed_generator(generator, seed);
}

int32_t psp_randGet(psp_rand *generator) {
  return static_cast<int32_t>(draw(generator) & kSmallNumberMask);
}

uint32_t psp_randGetUInt32(psp_rand *generator) { return draw(generator); }

uint64_t psp_randGetUInt64(psp_rand *generator) {
  const uint64_t high = draw(generator);
  return high << 32 | draw(generator);
}

double psp_randGetDouble(psp_rand *generator) {
  constexpr double kLargest = 4294967295.0;
  return draw(generator) / kLargest;
}
