// Kernels: the fast half of UTF-8 conversion. A kernel converts the longest stretch of well-formed
// text that it can do at speed, and knows no modes, replacements or terminators.
//
// What every kernel promises:
// - It starts between two characters and stops between two characters. It may stop early for any
//   reason (ill-formed text, a character cut by the end of the source, little room), even at once:
//   the definition in utf8_engine.cpp takes over there and decides what is to be done.
// - What it took was well-formed by the same rules as the definition's, and what it produced is
//   what the definition would have produced.
// - It reads source[0 .. length) only, and what it leaves changed in the destination is what it
//   produced and nothing behind it.
//
// A set of kernels belongs to one kind of processor; the fastest usable one is found at run time.
//
// Included by the files utf8_*.cpp, psputf8.cpp and the module's tests.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <span>

#include "psp.h"

namespace psp::text {

struct Progress {
  size_t consumed;  // bytes or units taken from the source
  size_t produced;  // units or bytes stored, or needed when only measuring
};

struct Kernels {
  const char *name;
  Progress (*to_wide)(const char *source, size_t length, psp_wchar *destination, size_t room);
  Progress (*measure_wide)(const char *source, size_t length);
  Progress (*to_utf8)(const psp_wchar *source, size_t length, char *destination, size_t room);
  Progress (*measure_utf8)(const psp_wchar *source, size_t length);

  // Whole conversions with terminator and result, as the exported functions that count. A set may
  // do the short and simple ones at once; the others go to convert (utf8_engine.h).
  int32_t (*whole_to_wide)(psp_wchar *destination, uint32_t size, const char *source,
                           uint32_t count, uint32_t mode);
  int32_t (*whole_to_utf8)(char *destination, uint32_t size, const psp_wchar *source,
                           uint32_t count, uint32_t mode);
};

// Plain code with SSE2 where the compiler may use it. Good for any processor; the other sets leave
// short and awkward ends to it.
extern const Kernels kBaseKernels;

// The wider sets exist for x86 alone; where this is not 1, only kBaseKernels does.
#if defined(__GNUC__) && (defined(__x86_64__) || (defined(__i386__) && defined(__SSE2__)))
#define PSP_UTF8_AVX2 1
extern const Kernels kAvx2Kernels;
#endif
#if defined(__GNUC__) && defined(__x86_64__)
#define PSP_UTF8_AVX512 1
extern const Kernels kAvx512Kernels;
#endif

// The set found by find_fastest_kernels, or null before. Relaxed is enough: every thread stores the
// same address, and what it points to is constant.
extern constinit std::atomic<const Kernels *> chosen_kernels;
const Kernels &find_fastest_kernels();

// The fastest set that this processor and its operating system can run.
inline const Kernels &fastest_kernels() {
  const Kernels *kernels = chosen_kernels.load(std::memory_order_relaxed);
  if (kernels == nullptr) [[unlikely]]
    return find_fastest_kernels();
  return *kernels;
}

// What an x86 processor tells by CPUID, and the registers that its operating system saves.
struct Processor {
  uint32_t leaf1_ecx, leaf7_ebx, leaf7_ecx, saved;
};

// How many of the sets, the plainest first, such a processor can run.
size_t count_usable(const Processor &processor);

// Every set that can be run here, the plainest first.
std::span<const Kernels *const> usable_kernels();

// A place in the destination; there is none when nothing is stored.
template <bool kStore, class Element>
Element *place(Element *destination, size_t offset) {
  return kStore ? destination + offset : nullptr;
}

}  // namespace psp::text
