// Arithmetic on sizes that a caller can influence: a result that would wrap is told, never used.
//
// Included by every module that computes a size.
#pragma once

#include <concepts>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <utility>

namespace psp {

// *result = a + b; false, with *result unspecified, when that does not fit.
template <std::integral T>
[[nodiscard]] inline bool checked_add(T a, T b, T *result) {
  return !__builtin_add_overflow(a, b, result);
}

// *result = a * b; false, with *result unspecified, when that does not fit.
template <std::integral T>
[[nodiscard]] inline bool checked_multiply(T a, T b, T *result) {
  return !__builtin_mul_overflow(a, b, result);
}

// The same for bytes that are asked of psp_getMem or psp_extendMem: what does not fit becomes a
// size that no memory fulfils, and fails like one.
[[nodiscard]] inline size_t add_or_most(size_t a, size_t b) {
  size_t sum = 0;
  return checked_add(a, b, &sum) ? sum : SIZE_MAX;
}
[[nodiscard]] inline size_t multiply_or_most(size_t a, size_t b) {
  size_t product = 0;
  return checked_multiply(a, b, &product) ? product : SIZE_MAX;
}

// Whether the value can be held by To without change.
template <std::integral To, std::integral From>
[[nodiscard]] constexpr bool fits(From value) {
  return std::in_range<To>(value);
}

}  // namespace psp
