// The records that the parts of the formatting engine share: where text goes, what one directive
// asks for, and how digits are put out.
//
// psp_vsnprintf.cpp parses formats and owns all conversions but the floating ones, which are in
// format_floating.cpp. Everything lives in the call's own records: no state, no locks, no
// allocation.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string_view>

#include "text/format_digits.h"

namespace psp::text {

// The destination of one call. Text goes to the buffer while it has room and is only counted from
// then on; bytes past the text are never touched. The count cannot wrap: it saturates far above
// the largest result that a call can give.
class Output {
 public:
  // With a null buffer, or a size of 0, everything is only counted. One byte of the size is kept
  // for the terminator. A size that reaches past the end of the address space means "no limit".
  Output(char *buffer, size_t size) : start_(buffer), cursor_(buffer), limit_(buffer) {
    if (buffer == nullptr || size == 0) return;
    const size_t address_space = UINTPTR_MAX - reinterpret_cast<uintptr_t>(buffer);
    limit_ += std::min({size - 1, address_space, static_cast<size_t>(PTRDIFF_MAX)});
    has_terminator_ = true;
  }

  bool full() const { return cursor_ == limit_; }
  uint64_t count() const { return static_cast<uint64_t>(cursor_ - start_) + dropped_; }
  void terminate() {
    if (has_terminator_) *cursor_ = '\0';
  }

  // Counts text that finds no room.
  void drop(uint64_t length) { dropped_ = std::min(dropped_ + length, kDroppedMax); }

  // Room for exactly that many bytes, which the caller fills; null when there is less.
  char *reserve(size_t length) {
    if (room() < length) return nullptr;
    char *place = cursor_;
    cursor_ += length;
    return place;
  }

  void put(char character) {
    if (full()) return drop(1);
    *cursor_++ = character;
  }

  void put(std::string_view text);

  void fill(char character, uint64_t count) {
    if (count != 0) fill_run(character, count);
  }

  // Puts out the format's plain text up to the next "%" or the end, and returns its place.
  const char *put_literal(const char *format) {
    char *at = cursor_;
    for (; at != limit_; ++at, ++format) {
      if (*format == '%' || *format == '\0') {
        cursor_ = at;
        return format;
      }
      *at = *format;
    }
    cursor_ = at;
    const char *rest = format;
    while (*format != '%' && *format != '\0') ++format;
    drop(static_cast<uint64_t>(format - rest));
    return format;
  }

 private:
  static constexpr uint64_t kDroppedMax = uint64_t{1} << 62;

  void fill_run(char character, uint64_t count);
  size_t room() const { return static_cast<size_t>(limit_ - cursor_); }

  char *start_;
  char *cursor_;
  char *limit_;  // where the terminator goes at the latest
  uint64_t dropped_ = 0;
  bool has_terminator_ = false;
};

// The flags of a directive.
enum Flag : uint32_t {
  kLeftJustify = 1,
  kShowPlus = 2,
  kSpaceForPlus = 4,
  kAlternate = 8,
  kZeroPadding = 16,
  kGrouping = 32,
};

// The size prefix of a directive.
enum class Size : uint8_t {
  kInt,
  kChar,
  kShort,
  kLong,  // 32 bits on every platform
  kLongLong,
  kLongDouble,
  kSizeType,
  kDifference,
  kLargest,
};

inline constexpr int32_t kNotGiven = -1;

// One directive of the format, without its "%".
struct Directive {
  uint32_t flags = 0;
  Size size = Size::kInt;
  char conversion = '\0';
  int32_t precision = kNotGiven;
  int64_t width = 0;

  bool has(Flag flag) const { return (flags & flag) != 0; }
  // Whether it asks for the value's own text and nothing else.
  bool plain() const { return flags == 0 && width == 0 && precision == kNotGiven; }
};

// The sign character of a number; '\0' for none.
inline char sign_of(const Directive &directive, bool negative) {
  if (negative) return '-';
  if ((directive.flags & (kShowPlus | kSpaceForPlus)) == 0) [[likely]]
    return '\0';
  return directive.has(kShowPlus) ? '+' : ' ';
}

// Blanks (or zeros) that bring a text of that length to the width.
inline uint64_t padding_for(const Directive &directive, uint64_t length) {
  const uint64_t width = static_cast<uint64_t>(directive.width);
  return width > length ? width - length : 0;
}

// What stands between groups of three digits: the locale's string, empty where the locale groups
// without one, "," where it has none.
std::string_view group_separator();

// Characters that separators add to a number of that many digits.
inline uint64_t separators_length(size_t digit_count, std::string_view separator) {
  return digit_count == 0 ? 0 : uint64_t{(digit_count - 1) / 3} * separator.size();
}

// Puts out exactly digit_count digits of the value in the base, with leading zeros if need be.
[[gnu::always_inline]] inline void put_digits(Output *out, Base base, uint64_t value,
                                              size_t digit_count) {
  if (char *place = out->reserve(digit_count); place != nullptr) [[likely]] {
    write_digits(place, base, value, digit_count);
    return;
  }
  char digits[kDigitsMax];
  write_digits(digits, base, value, digit_count);
  out->put({digits, digit_count});
}

// The same for a whole number, with the separator before every third digit from the right.
void put_grouped(Output *out, Base base, uint64_t value, size_t digit_count,
                 std::string_view separator);

// Formats a double by an "f", "F", "a", "A", "e", "E", "g" or "G" directive. False, with nothing
// put out, when the value is out of the notation's range.
[[nodiscard]] bool put_floating(Output *out, const Directive &directive, double value);

}  // namespace psp::text
