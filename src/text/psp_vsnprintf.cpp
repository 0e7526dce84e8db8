// The formatting engine behind every text that the library makes: parsing of formats, all
// conversions but the floating ones, and the functions that format into new strings.
//
// A "%" is parsed into a Directive, then one function a class of conversion puts out its text. The
// argument list is read exactly as the format names it. No state, no locks; only psp_makeStr and
// its kin allocate.
#include <algorithm>
#include <cstdarg>
#include <cstring>
#include <limits>
#include <string_view>
#include <type_traits>

#include "core/exported_call.h"
#include "os/os.h"
#include "psp.h"
#include "text/format.h"

namespace psp::text {
namespace {

constexpr char kSource[] = "psp_vsnprintf.cpp";
constexpr int32_t kFailed = -1;
constexpr int64_t kNumberMax = 0x7FFFFFFF;  // of a width or a precision
constexpr int32_t kPointerPrecision = 8;

// The argument list of a call; in a record, so that one pointer to it serves every platform.
struct Arguments {
  std::va_list list;
};

// ---- Parsing ------------------------------------------------------------------------------------

const char *parse_flags(const char *format, uint32_t *flags) {
  for (;; ++format) {
    switch (*format) {
      case '-':
        *flags |= kLeftJustify;
        break;
      case '+':
        *flags |= kShowPlus;
        break;
      case ' ':
        *flags |= kSpaceForPlus;
        break;
      case '#':
        *flags |= kAlternate;
        break;
      case '0':
        *flags |= kZeroPadding;
        break;
      case '\'':
        *flags |= kGrouping;
        break;
      default:
        return format;
    }
  }
}

// Reads digits or "*". Null when the digits exceed a width's range.
const char *parse_number(const char *format, Arguments *arguments, int64_t *number) {
  if (*format == '*') {
    *number = va_arg(arguments->list, int32_t);
    return format + 1;
  }
  int64_t value = 0;
  for (; *format >= '0' && *format <= '9'; ++format) {
    value = value * 10 + (*format - '0');
    if (value > kNumberMax) return nullptr;
  }
  *number = value;
  return format;
}

const char *parse_size(const char *format, Size *size) {
  switch (*format) {
    case 'h':
      *size = format[1] == 'h' ? Size::kChar : Size::kShort;
      return format + (*size == Size::kChar ? 2 : 1);
    case 'l':
      *size = format[1] == 'l' ? Size::kLongLong : Size::kLong;
      return format + (*size == Size::kLongLong ? 2 : 1);
    case 'L':
      *size = Size::kLongDouble;
      return format + 1;
    case 'z':
      *size = Size::kSizeType;
      return format + 1;
    case 't':
      *size = Size::kDifference;
      return format + 1;
    case 'j':
      *size = Size::kLargest;
      return format + 1;
    case 'I':  // any other "I" is the conversion character
      if (format[1] == '6' && format[2] == '4') {
        *size = Size::kLongLong;
        return format + 3;
      }
      return format[1] == '3' && format[2] == '2' ? format + 3 : format;
    default:
      return format;
  }
}

// Parses what follows a "%", up to the conversion character, and returns its place. Null for a
// number out of range.
const char *parse(const char *format, Arguments *arguments, Directive *directive) {
  if (*format < 'A') {  // flags, digits, "*" and "." all come before the letters
    format = parse_flags(format, &directive->flags);
    format = parse_number(format, arguments, &directive->width);
    if (format == nullptr) return nullptr;
    if (directive->width < 0) {
      directive->flags |= kLeftJustify;
      directive->width = -directive->width;
    }
    if (*format == '.') {
      int64_t precision = 0;
      format = parse_number(format + 1, arguments, &precision);
      if (format == nullptr) return nullptr;
      directive->precision = precision < 0 ? kNotGiven : static_cast<int32_t>(precision);
    }
  }
  format = parse_size(format, &directive->size);
  directive->conversion = *format;
  return format;
}

// ---- Integers -----------------------------------------------------------------------------------

template <class Narrow>
uint64_t widen(int32_t value, bool is_signed) {
  if (is_signed) return static_cast<uint64_t>(int64_t{static_cast<Narrow>(value)});
  return static_cast<std::make_unsigned_t<Narrow>>(value);
}

// The next argument as 64 bits, sign-extended for signed conversions.
uint64_t take_integer(Arguments *arguments, Size size, bool is_signed) {
  if (size == Size::kInt) [[likely]]
    return widen<int32_t>(va_arg(arguments->list, int32_t), is_signed);
  switch (size) {
    case Size::kChar:
      return widen<int8_t>(va_arg(arguments->list, int32_t), is_signed);
    case Size::kShort:
      return widen<int16_t>(va_arg(arguments->list, int32_t), is_signed);
    case Size::kLongLong:
    case Size::kLargest:
      return va_arg(arguments->list, uint64_t);
    case Size::kSizeType:  // never sign-extended: a negative one shows only where it is 64 bits
      return va_arg(arguments->list, size_t);
    case Size::kDifference:
      return static_cast<uint64_t>(int64_t{va_arg(arguments->list, ptrdiff_t)});
    case Size::kLongDouble:  // no integer has this size
      return 0;
    default:
      return widen<int32_t>(va_arg(arguments->list, int32_t), is_signed);
  }
}

// A number with everything that flags, width and precision can ask for.
void put_laid_out(Output *out, const Directive &directive, Base base, uint64_t magnitude,
                  char sign) {
  int64_t precision = directive.precision;
  std::string_view prefix;
  if (directive.has(kAlternate) && magnitude != 0) {
    if (base == Base::kOctal) {
      prefix = "0";
      if (precision != kNotGiven) --precision;
    }
    if (base == Base::kHexadecimal) prefix = "0x";
    if (base == Base::kUpperHexadecimal) prefix = "0X";
  }
  const size_t digits = magnitude == 0 && precision == 0 ? 0 : count_digits(base, magnitude);
  const std::string_view separator =
      directive.has(kGrouping) ? group_separator() : std::string_view();
  const uint64_t separators = separators_length(digits, separator);

  // The precision counts separators as digits; the width counts them beside the precision.
  const int64_t missing = precision - static_cast<int64_t>(separators + digits);
  uint64_t zeros = static_cast<uint64_t>(std::max<int64_t>(missing, 0));
  const int64_t places = std::max(precision, static_cast<int64_t>(digits));
  uint64_t padding = padding_for(directive, (sign != '\0' ? 1 : 0) + separators + prefix.size() +
                                                static_cast<uint64_t>(places));
  if (directive.has(kZeroPadding) && !directive.has(kLeftJustify) &&
      directive.precision == kNotGiven) {
    zeros += padding;
    padding = 0;
  }

  if (!directive.has(kLeftJustify)) out->fill(' ', padding);
  if (sign != '\0') out->put(sign);
  if (!prefix.empty()) out->put(prefix);
  out->fill('0', zeros);
  put_grouped(out, base, magnitude, digits, separator);
  if (directive.has(kLeftJustify)) out->fill(' ', padding);
}

inline void put_integer(Output *out, const Directive &directive, Base base, uint64_t magnitude,
                        char sign) {
  if (!directive.plain()) return put_laid_out(out, directive, base, magnitude, sign);
  if (sign != '\0') out->put(sign);
  put_digits(out, base, magnitude, count_digits(base, magnitude));
}

void put_signed(Output *out, const Directive &directive, Arguments *arguments) {
  const uint64_t value = take_integer(arguments, directive.size, true);
  const bool negative = static_cast<int64_t>(value) < 0;
  put_integer(out, directive, Base::kDecimal, negative ? 0 - value : value,
              sign_of(directive, negative));
}

void put_unsigned(Output *out, const Directive &directive, Base base, Arguments *arguments) {
  put_integer(out, directive, base, take_integer(arguments, directive.size, false), '\0');
}

void put_pointer(Output *out, Directive *directive, Arguments *arguments) {
  const auto address = reinterpret_cast<uintptr_t>(va_arg(arguments->list, void *));
  directive->precision = kPointerPrecision;
  put_laid_out(out, *directive, Base::kUpperHexadecimal, address, '\0');
}

// ---- Text, characters, counts -------------------------------------------------------------------

// A text cut by a precision need not be terminated: nothing past the precision is read.
size_t text_length(const char *text, int32_t precision) {
  if (precision == kNotGiven) return std::strlen(text);
  const size_t most = static_cast<size_t>(precision);
  const void *end = std::memchr(text, '\0', most);
  return end == nullptr ? most : static_cast<size_t>(static_cast<const char *>(end) - text);
}

void put_text(Output *out, const Directive &directive, Arguments *arguments) {
  const char *text = va_arg(arguments->list, const char *);
  if (text == nullptr) text = "(null)";
  const size_t length = text_length(text, directive.precision);
  const uint64_t padding = padding_for(directive, length);
  if (!directive.has(kLeftJustify)) out->fill(' ', padding);
  if (char *place = out->reserve(length); place != nullptr) [[likely]] {
    copy_bytes(place, text, length);
  } else {
    out->put({text, length});
  }
  if (directive.has(kLeftJustify)) out->fill(' ', padding);
}

template <class Integer>
void store_count(Arguments *arguments, uint32_t count) {
  auto *place = static_cast<Integer *>(va_arg(arguments->list, void *));
  if (place != nullptr) *place = static_cast<Integer>(count);
}

void take_count(const Output &out, const Directive &directive, Arguments *arguments) {
  const uint32_t count =
      static_cast<uint32_t>(std::min<uint64_t>(out.count(), std::numeric_limits<uint32_t>::max()));
  switch (directive.size) {
    case Size::kChar:
      return store_count<uint8_t>(arguments, count);
    case Size::kShort:
      return store_count<uint16_t>(arguments, count);
    case Size::kLongLong:
    case Size::kLargest:
      return store_count<uint64_t>(arguments, count);
    case Size::kLongDouble:
      return;
    default:
      return store_count<uint32_t>(arguments, count);
  }
}

// ---- The walk -----------------------------------------------------------------------------------

// Puts out one directive; false when its value has no text. Unknown conversions put out nothing.
bool convert(Output *out, Directive *directive, Arguments *arguments) {
  switch (directive->conversion) {
    case 'd':
    case 'i':
      put_signed(out, *directive, arguments);
      return true;
    case 'u':
      put_unsigned(out, *directive, Base::kDecimal, arguments);
      return true;
    case 'o':
      put_unsigned(out, *directive, Base::kOctal, arguments);
      return true;
    case 'x':
      put_unsigned(out, *directive, Base::kHexadecimal, arguments);
      return true;
    case 'X':
      put_unsigned(out, *directive, Base::kUpperHexadecimal, arguments);
      return true;
    case 'p':
      put_pointer(out, directive, arguments);
      return true;
    case 's':
      put_text(out, *directive, arguments);
      return true;
    case 'c':
      out->put(static_cast<char>(va_arg(arguments->list, int32_t)));
      return true;
    case '%':
      out->put('%');
      return true;
    case 'n':
      take_count(*out, *directive, arguments);
      return true;
    case 'f':
    case 'F':
    case 'a':
    case 'A':
    case 'e':
    case 'E':
    case 'g':
    case 'G':
      return put_floating(out, *directive, va_arg(arguments->list, double));
    default:
      return true;
  }
}

// Formats up to the end of the format, or to the directive that failed (false). A format that ends
// inside a directive ends before it.
bool walk(Output *out, const char *format, Arguments *arguments) {
  if (format == nullptr) return false;
  for (;;) {
    format = out->put_literal(format);
    if (*format == '\0') return true;
    Directive directive;
    format = parse(format + 1, arguments, &directive);
    if (format == nullptr) return false;
    if (*format == '\0') return true;
    if (!convert(out, &directive, arguments)) return false;
    ++format;
  }
}

int32_t format_into(char *buffer, size_t size, const char *format, Arguments *arguments) {
  Output out(buffer, size);
  const bool done = walk(&out, format, arguments);
  out.terminate();
  if (!done || out.count() >= static_cast<uint64_t>(std::numeric_limits<int32_t>::max())) {
    return kFailed;
  }
  return static_cast<int32_t>(out.count());
}

// Measures, allocates, formats.
char *make_text(const char *file, uint32_t line, psp_tag *tag, const char *format,
                Arguments *arguments) {
  Arguments again;
  va_copy(again.list, arguments->list);
  const int32_t length = format_into(nullptr, 0, format, arguments);
  char *text = nullptr;
  if (length >= 0) {
    const size_t size = static_cast<size_t>(length) + 1;
    text = static_cast<char *>(psp_getMem(size, tag, PSP_MEM_ALLOC, nullptr, file, line));
    if (text != nullptr) format_into(text, size, format, &again);
  }
  va_end(again.list);
  return text;
}

}  // namespace

void Output::put(std::string_view text) {
  const size_t stored = std::min(text.size(), room());
  copy_bytes(cursor_, text.data(), stored);
  cursor_ += stored;
  if (stored != text.size()) drop(text.size() - stored);
}

void Output::fill_run(char character, uint64_t count) {
  const size_t stored = static_cast<size_t>(std::min<uint64_t>(count, room()));
  fill_bytes(cursor_, character, stored);
  cursor_ += stored;
  if (stored != count) drop(count - stored);
}

void put_grouped(Output *out, Base base, uint64_t value, size_t digit_count,
                 std::string_view separator) {
  if (separator.empty()) return put_digits(out, base, value, digit_count);
  char digits[kDigitsMax];
  write_digits(digits, base, value, digit_count);
  size_t done = digit_count % 3;
  out->put({digits, done});
  for (; done < digit_count; done += 3) {
    if (done != 0) out->put(separator);
    out->put({digits + done, 3});
  }
}

std::string_view group_separator() {
  const char *separator = os::thousands_separator();
  return separator == nullptr ? "," : separator;
}

}  // namespace psp::text

using psp::core::exported_call;
using psp::text::Arguments;

int32_t psp_vsnprintf(char *buffer, size_t size, const char *format, va_list arguments) {
  Arguments copy;
  va_copy(copy.list, arguments);
  const int32_t result = psp::text::format_into(buffer, size, format, &copy);
  va_end(copy.list);
  return result;
}

int32_t psp_snprintf(char *buffer, size_t size, const char *format, ...) {
  Arguments arguments;
  va_start(arguments.list, format);
  const int32_t result = psp::text::format_into(buffer, size, format, &arguments);
  va_end(arguments.list);
  return result;
}

char *psp_makeStr(psp_tag *tag, const char *format, ...) {
  Arguments arguments;
  va_start(arguments.list, format);
  char *text = exported_call(
      [&] { return psp::text::make_text(psp::text::kSource, __LINE__, tag, format, &arguments); });
  va_end(arguments.list);
  return text;
}

char *psp_makeString(const char *format, ...) {
  Arguments arguments;
  va_start(arguments.list, format);
  char *text = exported_call([&] {
    return psp::text::make_text(psp::text::kSource, __LINE__, nullptr, format, &arguments);
  });
  va_end(arguments.list);
  return text;
}

char *psp_makeStrVA(const char *file, uint32_t line, psp_tag *tag, const char *format, ...) {
  Arguments arguments;
  va_start(arguments.list, format);
  char *text =
      exported_call([&] { return psp::text::make_text(file, line, tag, format, &arguments); });
  va_end(arguments.list);
  return text;
}
