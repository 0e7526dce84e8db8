// Arithmetic on sizes that a caller can influence: a result that would wrap is told, never used.
//
// Included by every module that computes a size.
#pragma once

#include <concepts>
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

// Whether the value can be held by To without change.
template <std::integral To, std::integral From>
[[nodiscard]] constexpr bool fits(From value) {
  return std::in_range<To>(value);
}

}  // namespace psp
