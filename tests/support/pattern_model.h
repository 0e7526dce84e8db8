// Which names a pattern lets through, by its rules one after the other: deep and slow.
#pragma once

namespace psp::tests {

inline char lower_ascii(char c) { return static_cast<char>(c >= 'A' && c <= 'Z' ? c | 0x20 : c); }

// The character behind a "*" is compared as it is, "?" and "*" too.
inline bool slow_match(const char *name, const char *pattern) {
  if (*pattern == '\0') return *name == '\0';
  if (*pattern != '*') {
    return *name != '\0' && (*pattern == '?' || lower_ascii(*pattern) == lower_ascii(*name)) &&
           slow_match(name + 1, pattern + 1);
  }
  if (pattern[1] == '\0') return true;
  for (; *name != '\0'; ++name) {
    if (lower_ascii(*name) == lower_ascii(pattern[1]) && slow_match(name + 1, pattern + 2)) {
      return true;
    }
  }
  return false;
}

}  // namespace psp::tests
