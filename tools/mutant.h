// What a mutated source is compiled with: each changed place has a number, and the process is told
// in its environment which one place behaves differently. So one build holds all mutants of a
// module.
//
//   PSP_MUTANT=N           the place that behaves differently; 0 or absent: none
//   PSP_MUTANT_REACHED=F   a file with a byte for each place, set to 1 where the place was reached
#ifndef TOOLS_MUTANT_H
#define TOOLS_MUTANT_H

#include <fcntl.h>
#include <stdlib.h>
#include <sys/mman.h>
#include <sys/stat.h>

#include <type_traits>

namespace mutant {

inline const int chosen = [] {
  const char *text = getenv("PSP_MUTANT");
  return text == nullptr ? 0 : atoi(text);
}();

inline unsigned char *const reached = []() -> unsigned char * {
  const char *path = getenv("PSP_MUTANT_REACHED");
  if (path == nullptr) return nullptr;
  int file = open(path, O_RDWR | O_CLOEXEC);
  struct stat status;
  if (file < 0 || fstat(file, &status) != 0) abort();
  void *bytes = mmap(nullptr, static_cast<size_t>(status.st_size), PROT_READ | PROT_WRITE,
                     MAP_SHARED, file, 0);
  if (bytes == MAP_FAILED) abort();
  return static_cast<unsigned char *>(bytes);  // the descriptor stays: tests count theirs
}();

inline bool is(int place) {
  if (reached != nullptr) __atomic_store_n(&reached[place], 1, __ATOMIC_RELAXED);
  return place == chosen;
}

constexpr bool flip(int place, bool value) {
  if (std::is_constant_evaluated()) return value;
  return is(place) ? !value : value;
}

// The comparison's other choice about equal values.
template <class A, class B>
constexpr bool less(int place, const A &a, const B &b) {
  if (!std::is_constant_evaluated() && is(place)) return a <= b;
  return a < b;
}
template <class A, class B>
constexpr bool less_equal(int place, const A &a, const B &b) {
  if (!std::is_constant_evaluated() && is(place)) return a < b;
  return a <= b;
}
template <class A, class B>
constexpr bool greater(int place, const A &a, const B &b) {
  if (!std::is_constant_evaluated() && is(place)) return a >= b;
  return a > b;
}
template <class A, class B>
constexpr bool greater_equal(int place, const A &a, const B &b) {
  if (!std::is_constant_evaluated() && is(place)) return a > b;
  return a >= b;
}

}  // namespace mutant

#endif
