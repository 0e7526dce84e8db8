// The formatting engine: directives made of the input with arguments that match, and formats that
// are the input itself with arguments that do no harm. For every size of the buffer the result is
// the same, the text is a beginning of the whole one, and nothing is written behind the buffer;
// where both have the same rules the text is the C library's, and floating conversions give what
// slow and plain ones give.
//
// An input is a kind; then a format, or two times a text and a directive with its value, or
// floating directives with their values.
#include <algorithm>
#include <cctype>
#include <cmath>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
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
// --------------------------------------------------------

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

// ---- Floating conversions, against a slow and plain way to make them
// -----------------------------

// Each operation goes through memory, so that the compiler cannot fuse or widen it.
double power_of_ten(int32_t exponent) {
  volatile double power = 1;
  for (; exponent > 0; --exponent) power = power * 10;
  for (; exponent < 0; ++exponent) power = power / 10;
  return power;
}

int32_t estimated_exponent(double magnitude) {
  if (magnitude == 0) return 0;
  int32_t exponent = 0;
  volatile double power = 1;
  if (magnitude < 1) {
    for (; power > magnitude; --exponent) power = power / 10;
  } else {
    for (power = 10; power <= magnitude; ++exponent) power = power * 10;
  }
  return exponent;
}

struct Parts {
  uint64_t whole = 0, fraction = 0;
  int32_t precision = 0, exponent = 0;
  bool exponent_form = false;

  bool generate(double magnitude) {
    precision = std::min(precision, 19);
    volatile double x = magnitude;
    if (exponent_form) x = magnitude / power_of_ten(exponent);
    if (x >= 18446744073709551616.0) return false;
    whole = static_cast<uint64_t>(x);
    const double scale = power_of_ten(precision);
    volatile double rest = x - static_cast<double>(whole);
    volatile double y = rest * scale;
    fraction = static_cast<uint64_t>(y);
    volatile double over = y - static_cast<double>(fraction);
    if (over >= 0.5) ++fraction;
    if (fraction >= static_cast<uint64_t>(scale)) {
      ++whole, fraction = 0;
      if (exponent_form && whole == 10) ++exponent, whole = 1;
    }
    return true;
  }
};

std::string plain_floating(const Directive &directive, double value) {
  const std::string sign = value < 0            ? "-"
                           : directive.has('+') ? "+"
                           : directive.has(' ') ? " "
                                                : "";
  const double magnitude = value < 0 ? -value : value;
  const bool special = !(magnitude < HUGE_VAL);
  std::string body = std::isnan(value) ? "#NAN" : "1.#INF";
  if (!special) {
    const bool general = directive.conversion == 'g' || directive.conversion == 'G';
    Parts parts;
    parts.precision = directive.has_precision ? directive.precision : 6;
    if (general) parts.precision = std::max(parts.precision, 1) - 1;
    parts.exponent_form = general || directive.conversion == 'e' || directive.conversion == 'E';
    parts.exponent = estimated_exponent(magnitude);
    if (!parts.generate(magnitude)) return "<failed>";
    if (general && parts.precision + 1 > parts.exponent && parts.exponent >= -4) {
      parts.precision -= parts.exponent;
      parts.exponent_form = false;
      if (!parts.generate(magnitude)) return "<failed>";
    }
    std::string fraction = parts.fraction == 0 ? "" : std::to_string(parts.fraction);
    fraction.insert(0, static_cast<size_t>(parts.precision) - fraction.size(), '0');
    if (general && !directive.has('#')) fraction.erase(fraction.find_last_not_of('0') + 1);
    body = std::to_string(parts.whole);
    if (!fraction.empty() || directive.has('#')) body += "." + fraction;
    if (parts.exponent_form) {
      char text[16];
      snprintf(text, sizeof text, "%c%+04d", std::isupper(directive.conversion) ? 'E' : 'e',
               parts.exponent);
      body += text;
    }
  }
  const size_t length = sign.size() + body.size(), width = static_cast<size_t>(directive.width);
  const std::string padding(width > length ? width - length : 0,
                            directive.has('0') && !directive.has('-') && !special ? '0' : ' ');
  if (directive.has('-')) return sign + body + std::string(padding.size(), ' ');
  return padding[0] == '0' ? sign + padding + body : padding + sign + body;
}

double floating_value(fuzz::Input *input) {
  const auto below = [input](uint32_t limit) { return static_cast<int32_t>(input->below(limit)); };
  switch (input->below(4)) {
    case 0:
      return input->number<double>();
    case 1:
      return std::ldexp(1 + input->number<uint32_t>() * 0x1p-32, below(140) - 70);
    case 2:
      return below(50000) / 1000.0;
    default: {  // about a power of ten
      const double power = power_of_ten(below(634) - 324);
      const int32_t step = below(3) - 1;
      return step == 0 ? power : std::nextafter(power, step * HUGE_VAL);
    }
  }
}

void run_floating(fuzz::Input *input) {
  while (!input->empty()) {
    Directive directive(input);
    directive.from_arguments = false;
    directive.width = std::abs(directive.width);
    directive.precision = std::abs(directive.precision);
    directive.size.clear();
    directive.conversion = "feEgGFaA"[input->below(8)];
    const double value = floating_value(input);
    for (const double either : {value, -value}) {
      FUZZ_EXPECT(formatted(directive.text().c_str(), either) == plain_floating(directive, either));
    }
  }
}

// ---- Any format
// ----------------------------------------------------------------------------------

template <size_t... Index>
void format_harmlessly(const char *format, std::index_sequence<Index...>) {
  formatted(format, (static_cast<void>(Index), harmless.bytes)..., 1e20, 0.1, -2.5, 1e-300, 1e15,
            9.9999999, 0.0, 3.0);
}

}  // namespace

void fuzz::run(Input input) {
  const uint32_t kind = input.below(8);
  if (kind == 4) return run_floating(&input);
  if (kind != 0) return run_directives(&input);
  // No directive takes more than two numbers and a value of two words.
  constexpr size_t kDirectives = 10;
  std::string format = input.text(400);
  size_t count = 0;
  for (char &c : format) {
    if (c == '%' && ++count > kDirectives) c = '_';
  }
  format_harmlessly(format.c_str(), std::make_index_sequence<kDirectives * 4>());
}
