// Random numbers beside GLib's and the C++ library's generators of the same sequence.
#include <glib.h>

#include <random>

#include "bench.h"
#include "psp.h"

namespace {

using benchmark::State;

constexpr uint32_t kSeed = 5489;

template <class Next>
uint64_t draw(State &state, Next next) {
  uint64_t sum = 0;
  for (auto _ : state) sum += next();
  return sum;
}

uint64_t psp_draw(State &state) {
  psp_rand *generator = psp_randCreate(kSeed);
  const uint64_t sum = draw(state, [&] { return psp_randGetUInt32(generator); });
  psp_randDestroy(generator);
  return sum;
}

// GLib's sequence is the same; it seeds from one word likewise.
uint64_t glib_draw(State &state) {
  GRand *generator = g_rand_new_with_seed(kSeed);
  const uint64_t sum = draw(state, [&] { return g_rand_int(generator); });
  g_rand_free(generator);
  return sum;
}

uint64_t std_draw(State &state) {
  std::mt19937 generator(kSeed);
  return draw(state, [&] { return generator(); });
}

// With the first draw: the peer renews its state only there.
uint64_t psp_seed_and_draw(State &state) {
  psp_rand *generator = psp_randCreate(kSeed);
  uint32_t seed = 0;
  uint64_t sum = 0;
  for (auto _ : state) {
    psp_randResetSeed(generator, ++seed);
    sum += psp_randGetUInt32(generator);
  }
  psp_randDestroy(generator);
  return sum;
}

uint64_t std_seed_and_draw(State &state) {
  std::mt19937 generator;
  uint32_t seed = 0;
  uint64_t sum = 0;
  for (auto _ : state) {
    generator.seed(++seed);
    sum += generator();
  }
  return sum;
}

const psp_bench::Registration registration([] {
  psp_bench::add_case("rand/draw 32 bits",
                      {{"psp", psp_draw}, {"GRand", glib_draw, 1.0}, {"std::mt19937", std_draw}});
  psp_bench::add_case("rand/seed and draw once",
                      {{"psp", psp_seed_and_draw}, {"std::mt19937", std_seed_and_draw, 0.5}});
});

}  // namespace
