// One benchmark case is a race of contenders over the same input in the same process: psp first,
// then the peers a user would pick instead. The runner (bench_main.cpp) times them with Google
// Benchmark in interleaved repetitions and prints one row a case: times, ratio to the best peer,
// ratio to each peer, and the aim.
//
// A contender returns a digest of what its last iteration produced. With --smoke every contender
// runs briefly and all digests of a case must be equal, so that a case cannot rot into comparing
// different work.
#pragma once

#include <benchmark/benchmark.h>

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace psp_bench {

struct Contender {
  std::string name;  // "psp" for ours
  // Runs `for (auto _ : state) ...` and returns the digest; 0 where there is nothing to compare.
  std::function<uint64_t(benchmark::State &)> run;
  double at_most = 0;  // aimed ratio psp / this peer; 0: told without an aim
};

struct Options {
  int threads = 1;  // the time is per operation of one thread, in wall time where threads > 1
};

// Registers a case; called from static registration functions before main runs them.
void add_case(const std::string &name, std::vector<Contender> contenders, Options options = {});

// A function that registers the cases of one file, called by the runner at its start.
struct Registration {
  explicit Registration(void (*register_cases)());
};

// FNV-1a of bytes, for digests.
uint64_t digest(const void *data, size_t size);

}  // namespace psp_bench
