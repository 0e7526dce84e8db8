// Small pure functions: substring search without regard to case, bounded copies, rounding,
// alignment by field type, byte order. They need no started library, keep no state, take no lock
// and allocate nothing.
#include <algorithm>
#include <array>
#include <bit>
#include <cstring>
#if defined(__SSE2__)
#include <emmintrin.h>
#endif

#include "psp.h"
#include "text/ascii.h"

namespace psp::text {
namespace {

// ---- Substring search ---------------------------------------------------------------------------

constexpr uint8_t fold(char character) { return static_cast<uint8_t>(to_lower(character)); }

// A zero-terminated text whose end is looked for as the search proceeds, so that an early match in
// a long text costs little and no byte after the terminator is read.
class SearchedText {
 public:
  explicit SearchedText(const char *start) : start_(start) {}

  const char *at(size_t position) const { return start_ + position; }

  // Whether the text has at least that many characters.
  bool has(size_t length) { return length <= known_ || extend(length); }

 private:
  static constexpr size_t kBlock = 4096;

  bool extend(size_t length) {
    if (ended_) return false;
    const size_t block = std::max(length - known_, kBlock);
    const void *end = std::memchr(start_ + known_, '\0', block);
    ended_ = end != nullptr;
    known_ = ended_ ? static_cast<size_t>(static_cast<const char *>(end) - start_) : known_ + block;
    return length <= known_;
  }

  const char *start_;
  size_t known_ = 0;  // so many characters are there
  bool ended_ = false;
};

struct Pattern {
  const char *text;
  size_t length;

  uint8_t operator[](size_t index) const { return fold(text[index]); }
};

// Looks at the 16 places from there on: a bit for each where the pattern's first and last
// character stand in either case.
#if defined(__SSE2__)
class EndsFilter {
 public:
  static constexpr size_t kPlaces = 16;

  explicit EndsFilter(const Pattern &pattern)
      : first_(pattern.text[0]),
        last_(pattern.text[pattern.length - 1]),
        distance_(pattern.length - 1) {}

  uint32_t operator()(const char *place) const {
    const __m128i both = _mm_and_si128(first_.equal(place), last_.equal(place + distance_));
    return static_cast<uint32_t>(_mm_movemask_epi8(both));
  }

 private:
  struct Letter {
    explicit Letter(char character)
        : as_is(_mm_set1_epi8(character)),
          other_case(_mm_set1_epi8(is_letter(character) ? static_cast<char>(character ^ 0x20)
                                                        : character)) {}
    __m128i equal(const char *place) const {
      const __m128i text = _mm_loadu_si128(reinterpret_cast<const __m128i *>(place));
      return _mm_or_si128(_mm_cmpeq_epi8(text, as_is), _mm_cmpeq_epi8(text, other_case));
    }
    __m128i as_is, other_case;
  };

  Letter first_, last_;
  size_t distance_;
};
#else
class EndsFilter {
 public:
  static constexpr size_t kPlaces = 16;

  explicit EndsFilter(const Pattern &pattern)
      : first_(pattern[0]), last_(pattern[pattern.length - 1]), distance_(pattern.length - 1) {}

  uint32_t operator()(const char *place) const {
    uint32_t places = 0;
    for (uint32_t i = 0; i < kPlaces; ++i) {
      if (fold(place[i]) == first_ && fold(place[distance_ + i]) == last_) places |= 1u << i;
    }
    return places;
  }

 private:
  uint8_t first_, last_;
  size_t distance_;
};
#endif

// Characters of the pattern that stand at the place, up to the first other one.
size_t matching(const char *place, const Pattern &pattern) {
  size_t count = 0;
  while (count < pattern.length && fold(place[count]) == pattern[count]) ++count;
  return count;
}

// The start of the pattern's greatest suffix under one of the two orders of characters, and the
// suffix's period.
size_t greatest_suffix(const Pattern &pattern, bool reversed, size_t *period) {
  size_t suffix = 0;
  size_t candidate = 1;
  size_t compared = 0;
  *period = 1;
  while (candidate + compared < pattern.length) {
    const uint8_t ours = pattern[suffix + compared];
    const uint8_t other = pattern[candidate + compared];
    if (ours == other) {
      if (++compared == *period) {
        candidate += *period;
        compared = 0;
      }
    } else if ((other < ours) != reversed) {
      candidate += compared + 1;
      compared = 0;
      *period = candidate - suffix;
    } else {
      suffix = candidate++;
      compared = 0;
      *period = 1;
    }
  }
  return suffix;
}

// Two-way string matching (Crochemore and Perrin, 1991): at most a few comparisons a character,
// whatever text and pattern are, and no memory.
const char *find_linear(SearchedText *text, size_t place, const Pattern &pattern) {
  if (!text->has(place + pattern.length)) return nullptr;
  size_t period = 0;
  size_t period_reversed = 0;
  size_t middle = greatest_suffix(pattern, false, &period);
  const size_t middle_reversed = greatest_suffix(pattern, true, &period_reversed);
  if (middle_reversed > middle) {
    middle = middle_reversed;
    period = period_reversed;
  }
  bool periodic = true;
  for (size_t i = 0; periodic && i < middle; ++i) periodic = pattern[i] == pattern[i + period];
  if (!periodic) period = std::max(middle, pattern.length - middle) + 1;

  size_t remembered = 0;  // so much of the pattern's start is known to stand at the place
  while (text->has(place + pattern.length)) {
    const char *at = text->at(place);
    size_t i = std::max(middle, remembered);
    while (i < pattern.length && fold(at[i]) == pattern[i]) ++i;
    if (i < pattern.length) {
      place += i - middle + 1;
      remembered = 0;
      continue;
    }
    i = middle;
    while (i > remembered && fold(at[i - 1]) == pattern[i - 1]) --i;
    if (i <= remembered) return at;
    place += period;
    remembered = periodic ? pattern.length - period : 0;
  }
  return nullptr;
}

// Looks for the pattern's two ends and compares where they stand. Where that compares far more
// than it passes, the linear search takes over.
const char *find(SearchedText *text, const Pattern &pattern) {
  constexpr size_t kComparedPerPlace = 8;
  constexpr size_t kComparedFree = 1024;
  const EndsFilter filter(pattern);
  size_t compared = 0;
  size_t place = 0;
  for (; text->has(place + EndsFilter::kPlaces - 1 + pattern.length);
       place += EndsFilter::kPlaces) {
    for (uint32_t places = filter(text->at(place)); places != 0; places &= places - 1) {
      const char *candidate = text->at(place) + std::countr_zero(places);
      const size_t count = matching(candidate, pattern);
      if (count == pattern.length) return candidate;
      compared += count;
    }
    if (compared > kComparedFree + place * kComparedPerPlace) [[unlikely]] {
      return find_linear(text, place + EndsFilter::kPlaces, pattern);
    }
  }
  return find_linear(text, place, pattern);
}

// ---- Alignment ----------------------------------------------------------------------------------

// Bytes, by class. Classes 3 and 4, and 5 and 6, tell integers from floating-point values.
constexpr std::array<uint16_t, 7> kClassAlignment = {1, 2, 2, 4, 4, 8, 8};

constexpr double kTwoTo52 = 4503599627370496.0;  // from here on every double is whole

}  // namespace
}  // namespace psp::text

const char *psp_strcasestr(const char *text, const char *pattern) {
  if (text == nullptr || *text == '\0') return nullptr;
  if (pattern == nullptr || *pattern == '\0') return text;
  psp::text::SearchedText searched(text);
  return psp::text::find(&searched, {pattern, std::strlen(pattern)});
}

char *psp_strncpyZ(char *destination, const char *source, uint32_t size) {
  if (size == 0) return destination;
  if (source == nullptr) source = "";
  const size_t most = size - 1;
  const void *end = std::memchr(source, '\0', most);
  const size_t length =
      end == nullptr ? most : static_cast<size_t>(static_cast<const char *>(end) - source);
  std::memcpy(destination, source, length);
  std::memset(destination + length, '\0', size - length);
  return destination;
}

psp_wchar *psp_wcsncpyZ(psp_wchar *destination, const psp_wchar *source, uint32_t size) {
  if (size == 0) return destination;
  uint32_t length = 0;
  if (source != nullptr) {
    while (length < size - 1 && source[length] != 0) ++length;
    std::memcpy(destination, source, size_t{length} * sizeof(psp_wchar));
  }
  std::fill(destination + length, destination + size, psp_wchar{0});
  return destination;
}

double psp_round(double value) {
  // Adding 0.5 would itself round: the number below 0.5 would become 1. The difference is exact.
  const double magnitude = __builtin_fabs(value);
  if (!(magnitude < psp::text::kTwoTo52)) return value;
  const double whole = static_cast<double>(static_cast<int64_t>(magnitude));
  return __builtin_copysign(magnitude - whole >= 0.5 ? whole + 1 : whole, value);
}

int32_t psp_alignType(char code) {
  switch (code) {
    case 'n':
    case 's':
      return 1;
    case 'C':
    case 'V':
      return 2;
    case 'i':
    case 'l':
    case 'd':
      return 3;
    case 'f':
      return 4;
    case 'L':
    case 'a':
    case 'D':
    case 'b':
      return 5;
    case 'F':
      return 6;
    default:  // 'c', 'v', 'g' and all that is no code
      return 0;
  }
}

uint16_t psp_align(uint16_t offset, int32_t alignment_class) {
  const bool known = alignment_class >= 0 &&
                     static_cast<size_t>(alignment_class) < psp::text::kClassAlignment.size();
  const uint32_t mask =
      known ? psp::text::kClassAlignment[static_cast<size_t>(alignment_class)] - 1u : 0u;
  return static_cast<uint16_t>((offset + mask) & ~mask);
}

uint16_t psp_swaporder16(uint16_t value) { return __builtin_bswap16(value); }

uint32_t psp_swaporder32(uint32_t value) { return __builtin_bswap32(value); }

uint64_t psp_swaporder64(uint64_t value) { return __builtin_bswap64(value); }

float psp_swaporderf32(uint32_t pattern) { return std::bit_cast<float>(psp_swaporder32(pattern)); }

double psp_swaporderf64(uint64_t pattern) {
  return std::bit_cast<double>(psp_swaporder64(pattern));
}
