// The formatting engine: directives made of the input with arguments that match, and formats that
// are the input itself with arguments that do no harm. For every size of the buffer the result is
// the same, the text is a beginning of the whole one, and nothing is written behind the buffer;
// where both have the same rules the text is the C library's.
//
// An input is a kind; then a format, or two times a text and a directive with its value.
#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <utility>
#include <vector>

#include "fuzz.h"
#include "psp.h"

namespace {

constexpr size_t kWholeBytes = 8192;  // texts that are longer are compared up to here
constexpr char kUnused = '~';

// What %n stores into and %s reads: the same before each call.
struct Harmless {
  alignas(8) char bytes[24];
  void reset() { std::memcpy(bytes, "text\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0", sizeof bytes); }
} harmless;

// Formats with every size that matters; returns the whole text as far as it is compared, or
// "<failed>".
std::string formatted(const char *format, ...) {
  va_list arguments, again;
  va_start(arguments, format);
  const auto call = [&](char *buffer, size_t size) {
    harmless.reset();
    va_copy(again, arguments);
    const int32_t length = psp_vsnprintf(buffer, size, format, again);
    va_end(again);
    return length;
  };
  const int32_t length = call(nullptr, 5);
  FUZZ_EXPECT(length >= -1 && call(nullptr, 0) == length);
  std::vector<char> whole(length < 0 ? kWholeBytes : std::min<size_t>(length + 1, kWholeBytes),
                          kUnused);
  FUZZ_EXPECT(call(whole.data(), whole.size()) == length);
  FUZZ_EXPECT(length < 0 || whole.back() == '\0');
  for (size_t size = 0; size <= whole.size(); size += size < 80 ? 1 : size / 2) {
    std::vector<char> buffer(size, kUnused);  // a block that ends with it
    char none = kUnused;
    FUZZ_EXPECT(call(size == 0 ? &none : buffer.data(), size) == length && none == kUnused);
    if (size == 0) continue;
    FUZZ_EXPECT(std::equal(buffer.begin(), buffer.end() - 1, whole.begin()));
    // The text is cut here, or it ends here, or it ended before, failed or not.
    const char last = buffer.back(), there = whole[size - 1];
    FUZZ_EXPECT(last == '\0' || (length < 0 && last == kUnused && there == kUnused));
  }
  // Room that is not needed stays as it is.
  if (length >= 0 && static_cast<size_t>(length) < kWholeBytes - 8) {
    std::vector<char> roomy(whole.size() + 8, kUnused);
    FUZZ_EXPECT(call(roomy.data(), roomy.size()) == length);
    FUZZ_EXPECT(std::equal(whole.begin(), whole.end(), roomy.begin()));
    FUZZ_EXPECT(std::string(roomy.end() - 8, roomy.end()) == std::string(8, kUnused));
  }
  va_end(arguments);
  return length < 0 ? "<failed>" : std::string(whole.data(), whole.size() - 1);
}

int by_c_library(char *buffer, size_t size, const char *format, ...) {
  va_list arguments;
  va_start(arguments, format);
  const int length = std::vsnprintf(buffer, size, format, arguments);
  va_end(arguments);
  return length;
}

// ---- Directives with arguments that match
// ---------------------------------------------------------

struct Format {
  std::string text;
  bool as_in_c = true;  // the C library's rules for it are the same
};

struct Directive {
  std::string flags, precision_text, size;
  int32_t width, precision;
  bool from_arguments, has_precision;
  char conversion;

  explicit Directive(fuzz::Input *input) {
    const uint32_t chosen = input->byte(), more = input->byte();
    for (size_t index = 0; index < 6; ++index) {
      if ((chosen >> index & 1) != 0) flags += "-+ #0'"[index];
    }
    from_arguments = (chosen & 0x40) != 0;
    has_precision = (chosen & 0x80) != 0;
    width = static_cast<int32_t>(more < 128 ? more % 48 : input->below(600));
    precision = static_cast<int32_t>(input->below(64));
    if (precision == 63) precision = static_cast<int32_t>(input->below(600));
    if (from_arguments && (more & 0x40) != 0) width = -width;
    if (from_arguments && precision > 40) precision = 40 - precision;
    constexpr const char *kSizes[] = {"", "hh", "h", "l", "ll", "j", "z", "t", "I64", "I32"};
    size = kSizes[input->below(10)];
    conversion = "diuoxXdiuxsfFeEgGaAp%c"[input->below(22)];
  }

  bool has(char flag) const { return flags.find(flag) != std::string::npos; }
  std::string text() const {
    std::string text = "%" + flags;
    if (from_arguments) return text + (has_precision ? "*.*" : "*") + size + conversion;
    if (width != 0) text += std::to_string(width);
    if (has_precision) text += "." + std::to_string(precision);
    return text + size + conversion;
  }
};

// Hands the directive's arguments on, behind the others: a value of its type, and the width and
// precision before it where they come as arguments.
template <class Next, class... Values>
void with_numbers(const Directive &directive, Next &&next, Values... values) {
  if (!directive.from_arguments) {
    next(values...);
  } else if (!directive.has_precision) {
    next(directive.width, values...);
  } else {
    next(directive.width, directive.precision, values...);
  }
}

template <class Next>
void with_arguments(fuzz::Input *input, Format *format, Next &&next) {
  const Directive directive(input);
  format->text += directive.text();
  const char c = directive.conversion;
  bool &as_in_c = format->as_in_c;
  if (c == '%' || c == 'c') {
    as_in_c &= directive.flags.empty() && directive.width == 0 && !directive.has_precision &&
               !directive.from_arguments && directive.size.empty();
    if (c == '%') return with_numbers(directive, next);
    return with_numbers(directive, next, static_cast<int>(input->byte()));
  }
  if (c == 's') {
    as_in_c &=
        directive.flags.find_first_not_of('-') == std::string::npos && directive.size.empty();
    static std::string texts[2];
    std::string &text = texts[format->text.size() == directive.text().size() ? 0 : 1];
    text = input->text(60);
    return with_numbers(directive, next, text.c_str());
  }
  if (c == 'p') {
    as_in_c = false;
    return with_numbers(directive, next, static_cast<const void *>(harmless.bytes));
  }
  const bool is_foreign_size =
      directive.size[0] == 'l' ? directive.size == "l" : directive.size[0] == 'I';
  if (std::strchr("fFeEgGaA", c) != nullptr) {
    // Eighths have digits that every rounding gives alike, where there is room for three.
    const bool is_eighths = input->below(2) != 0;
    const double value =
        is_eighths ? static_cast<double>(input->number<int32_t>()) / 8 : input->number<double>();
    const int32_t precision = directive.has_precision ? directive.precision : 6;
    as_in_c &= is_eighths && (c == 'f' || c == 'F') && precision >= 3 && precision <= 19 &&
               directive.size.empty();
    return with_numbers(directive, next, value);
  }
  // The prefix keeps a zero without digits in C, and does not here.
  as_in_c &= !is_foreign_size && !(c == 'o' && directive.has('#') && directive.has_precision &&
                                   directive.precision == 0);
  const bool has_word = directive.size == "z" || directive.size == "t";
  if (has_word && sizeof(size_t) == 4) as_in_c = false;
  if (has_word && sizeof(size_t) == 4) return with_numbers(directive, next, input->number<int>());
  if (has_word || directive.size == "ll" || directive.size == "j" || directive.size == "I64") {
    return with_numbers(directive, next, input->number<int64_t>());
  }
  with_numbers(directive, next, input->number<int>());
}

void run_directives(fuzz::Input *input) {
  const auto plain_text = [input] {
    std::string text = input->text(20);
    std::replace(text.begin(), text.end(), '%', '_');
    return text;
  };
  Format format;
  format.text = plain_text();
  with_arguments(input, &format, [&](auto... first) {
    format.text += plain_text();
    with_arguments(input, &format, [&](auto... second) {
      const char *const text = format.text.c_str();
      const std::string given = formatted(text, first..., second...);
      if (!format.as_in_c) return;
      char wanted[4096];
      const int length = by_c_library(wanted, sizeof wanted, text, first..., second...);
      FUZZ_EXPECT(given == std::string(wanted, static_cast<size_t>(length)));
    });
  });
}

// ---- Any format
// -----------------------------------------------------------------------------------

template <size_t... Index>
void format_harmlessly(const char *format, std::index_sequence<Index...>) {
  formatted(format, (static_cast<void>(Index), harmless.bytes)..., 1e20, 0.1, -2.5, 1e-300, 1e15,
            9.9999999, 0.0, 3.0);
}

}  // namespace

void fuzz::run(Input input) {
  if (input.below(4) != 0) return run_directives(&input);
  // No directive takes more than two numbers and a value of two words.
  constexpr size_t kDirectives = 10;
  std::string format = input.text(400);
  size_t count = 0;
  for (char &c : format) {
    if (c == '%' && ++count > kDirectives) c = '_';
  }
  format_harmlessly(format.c_str(), std::make_index_sequence<kDirectives * 4>());
}
