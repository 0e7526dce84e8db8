// Floating conversions of the formatting engine.
//
// A double becomes two unsigned numbers, its whole part and its fraction times 10^precision, by
// plain IEEE double arithmetic: each multiplication and division here is part of the result, bit
// for bit, so this file must be compiled without contraction into fused operations and without
// excess precision. The powers of ten are the chains 1*10*10*... and 1/10/10/..., whose rounding
// errors belong to the result too.
//
// Pure functions over constant tables; the locale is asked once a directive.
#include <algorithm>
#include <array>
#include <bit>
#include <cstdint>
#include <limits>
#include <string_view>

#include "os/os.h"
#include "text/format.h"

namespace psp::text {
namespace {

constexpr int32_t kDefaultPrecision = 6;
constexpr int32_t kPrecisionMax = 19;  // 10^19 is the last power of ten below 2^64
constexpr double kTwoTo64 = 18446744073709551616.0;
constexpr size_t kExponentLength = 5;  // "e+000"

// Powers of ten by repeated multiplication and division. 10^-324 is 0 and 10^309 is infinite.
class DecimalPowers {
 public:
  static constexpr int32_t kLeast = -324;
  static constexpr int32_t kGreatest = 309;

  constexpr DecimalPowers() {
    at(0) = 1;
    for (int32_t i = -1; i > kLeast; --i) at(i) = at(i + 1) / 10;
    at(kLeast) = 0;
    for (int32_t i = 1; i < kGreatest; ++i) at(i) = at(i - 1) * 10;
    at(kGreatest) = std::numeric_limits<double>::infinity();
  }

  constexpr double operator[](int32_t exponent) const {
    return powers_[static_cast<size_t>(exponent - kLeast)];
  }

 private:
  constexpr double &at(int32_t exponent) { return powers_[static_cast<size_t>(exponent - kLeast)]; }

  std::array<double, kGreatest - kLeast + 1> powers_{};
};

constexpr DecimalPowers kDecimalPowers;

// A magnitude on its way to text.
struct Layout {
  uint64_t whole = 0;
  uint64_t fraction = 0;  // the fraction's digits, `precision` of them with leading zeros
  int32_t precision = 0;
  bool exponent_form = false;
  int32_t exponent = 0;
};

// The greatest exponent whose power of ten is not above the magnitude; 0 for 0.
int32_t decimal_exponent(double magnitude) {
  if (magnitude == 0) return 0;
  const int32_t biased = static_cast<int32_t>(std::bit_cast<uint64_t>(magnitude) >> 52);
  int32_t exponent = (biased - 1023) * 78913 >> 18;  // times log10(2), rounded down
  // At most one step, but for subnormal numbers, whose exponent field tells less.
  while (kDecimalPowers[exponent] > magnitude) --exponent;
  while (kDecimalPowers[exponent + 1] <= magnitude) ++exponent;
  return exponent;
}

// Splits the magnitude into the numbers that are printed, in the layout's notation and precision.
// False when the whole part has no room in 64 bits. (In exponent form that is the least subnormal,
// whose power of ten is 0.)
bool split(double magnitude, Layout *layout) {
  const double scaled =
      layout->exponent_form ? magnitude / kDecimalPowers[layout->exponent] : magnitude;
  if (!(scaled < kTwoTo64)) return false;
  layout->whole = static_cast<uint64_t>(scaled);
  layout->precision = std::min(layout->precision, kPrecisionMax);
  const double exact =
      (scaled - static_cast<double>(layout->whole)) * kDecimalPowers[layout->precision];
  layout->fraction = static_cast<uint64_t>(exact);
  if (exact - static_cast<double>(layout->fraction) >= 0.5) ++layout->fraction;
  if (layout->fraction < kPowersOfTen[static_cast<size_t>(layout->precision)]) return true;

  layout->fraction = 0;
  if (++layout->whole == 10 && layout->exponent_form) {
    layout->whole = 1;
    ++layout->exponent;
  }
  return true;
}

// Drops the zeros at the end of the fraction.
void strip(Layout *layout) {
  if (layout->fraction == 0) {
    layout->precision = 0;
    return;
  }
  uint64_t fraction = layout->fraction;
  int32_t stripped = 0;
  while (fraction % 100000000 == 0) {
    fraction /= 100000000;
    stripped += 8;
  }
  if (fraction % 10000 == 0) {
    fraction /= 10000;
    stripped += 4;
  }
  if (fraction % 100 == 0) {
    fraction /= 100;
    stripped += 2;
  }
  if (fraction % 10 == 0) {
    fraction /= 10;
    stripped += 1;
  }
  layout->fraction = fraction;
  layout->precision -= stripped;
}

// General notation: exponent form for small and large exponents, else fixed with as many
// significant digits.
bool split_general(double magnitude, bool keep_zeros, Layout *layout) {
  --layout->precision;
  layout->exponent_form = true;
  layout->exponent = decimal_exponent(magnitude);
  if (!split(magnitude, layout)) return false;
  if (layout->precision + 1 > layout->exponent && layout->exponent >= -4) {
    layout->precision -= layout->exponent;
    layout->exponent_form = false;
    if (!split(magnitude, layout)) return false;
  }
  if (!keep_zeros) strip(layout);
  return true;
}

bool make_layout(const Directive &directive, double magnitude, Layout *layout) {
  layout->precision = directive.precision == kNotGiven ? kDefaultPrecision : directive.precision;
  switch (directive.conversion) {
    case 'g':
    case 'G':
      layout->precision = std::max(layout->precision, 1);
      return split_general(magnitude, directive.has(kAlternate), layout);
    case 'e':
    case 'E':
      layout->exponent_form = true;
      layout->exponent = decimal_exponent(magnitude);
      return split(magnitude, layout);
    default:
      return split(magnitude, layout);
  }
}

// The locale's decimal point, "." where it has none.
std::string_view decimal_point() {
  const char *point = os::decimal_point();
  if (point == nullptr || point[0] == '\0') return ".";
  return point[1] == '\0' ? std::string_view(point, 1) : std::string_view(point);
}

void put_exponent(Output *out, int32_t exponent, bool upper_case) {
  const uint32_t magnitude = static_cast<uint32_t>(exponent < 0 ? -exponent : exponent);
  char text[kExponentLength] = {upper_case ? 'E' : 'e', exponent < 0 ? '-' : '+'};
  write_digits(text + 2, Base::kDecimal, magnitude, 3);
  out->put({text, kExponentLength});
}

// Not-a-number and infinity: a text like any other, never filled with zeros.
void put_special(Output *out, const Directive &directive, char sign, std::string_view text) {
  const uint64_t padding = padding_for(directive, text.size() + (sign != '\0' ? 1 : 0));
  if (!directive.has(kLeftJustify)) out->fill(' ', padding);
  if (sign != '\0') out->put(sign);
  out->put(text);
  if (directive.has(kLeftJustify)) out->fill(' ', padding);
}

}  // namespace

bool put_floating(Output *out, const Directive &directive, double value) {
  const char sign = sign_of(directive, value < 0);
  const double magnitude = value < 0 ? -value : value;
  if (!(magnitude <= std::numeric_limits<double>::max())) [[unlikely]] {
    put_special(out, directive, sign, value != value ? "#NAN" : "1.#INF");
    return true;
  }
  Layout layout;
  if (!make_layout(directive, magnitude, &layout)) return false;

  const size_t precision = static_cast<size_t>(layout.precision);
  const size_t whole_digits = count_digits(Base::kDecimal, layout.whole);
  const std::string_view separator =
      directive.has(kGrouping) ? group_separator() : std::string_view();
  const std::string_view point =
      precision > 0 || directive.has(kAlternate) ? decimal_point() : std::string_view();
  const uint64_t length = (sign != '\0' ? 1 : 0) + whole_digits +
                          separators_length(whole_digits, separator) + point.size() + precision +
                          (layout.exponent_form ? kExponentLength : 0);
  const uint64_t padding = padding_for(directive, length);
  if (out->full()) {
    out->drop(length + padding);
    return true;
  }

  const bool zeros = directive.has(kZeroPadding) && !directive.has(kLeftJustify);
  if (!zeros && !directive.has(kLeftJustify)) out->fill(' ', padding);
  if (sign != '\0') out->put(sign);
  if (zeros) out->fill('0', padding);
  put_grouped(out, Base::kDecimal, layout.whole, whole_digits, separator);
  if (point.size() == 1) [[likely]] {
    out->put(point[0]);
  } else {
    out->put(point);
  }
  put_digits(out, Base::kDecimal, layout.fraction, precision);
  if (layout.exponent_form) {
    const bool upper_case = directive.conversion == 'E' || directive.conversion == 'G';
    put_exponent(out, layout.exponent, upper_case);
  }
  if (directive.has(kLeftJustify)) out->fill(' ', padding);
  return true;
}

}  // namespace psp::text
