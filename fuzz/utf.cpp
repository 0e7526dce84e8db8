// UTF-8 and UTF-16: arbitrary bytes and units, in both modes and into destinations of many sizes,
// against a reference that takes a text apart first and stores it afterwards.
//
// An input is a mode, how many elements stand before the source in its block (which moves it
// against the borders of vectors), how often its text is repeated, and the text.
#include <algorithm>
#include <vector>

#include "fuzz.h"
#include "psp.h"

namespace {

using Bytes = std::string;
using Units = std::basic_string<psp_wchar>;

// A character, or invalid elements that are replaced together.
struct Piece {
  uint32_t character = 0;
  size_t invalid = 0;
  bool must_fit = false;  // the conversion fails if there is no room for the replacements
};

std::vector<Piece> pieces_of(const Units &text) {
  std::vector<Piece> pieces;
  for (size_t at = 0; at < text.size(); ++at) {
    const uint32_t unit = text[at], next = at + 1 < text.size() ? text[at + 1] : 0u;
    const bool high = unit >= 0xD800 && unit < 0xDC00, low = unit >= 0xDC00 && unit < 0xE000;
    if (high && next >= 0xDC00 && next < 0xE000) {
      pieces.push_back({0x10000 + (unit - 0xD800) * 0x400 + (next - 0xDC00)});
      ++at;
    } else if (high || low) {
      pieces.push_back({0, 1, high});
    } else {
      pieces.push_back({unit});
    }
  }
  return pieces;
}

// Every byte that a character opens with says how many follow. What breaks a sequence belongs to
// it.
std::vector<Piece> pieces_of(const Bytes &text) {
  constexpr uint32_t kLeast[] = {0, 0, 0x80, 0x800, 0x10000};
  std::vector<Piece> pieces;
  for (size_t at = 0; at < text.size();) {
    const auto lead = static_cast<uint8_t>(text[at]);
    const size_t length = lead < 0x80   ? 1
                          : lead < 0xC2 ? 0
                          : lead < 0xE0 ? 2
                          : lead < 0xF0 ? 3
                          : lead < 0xF5 ? 4
                                        : 0;
    uint32_t value = length <= 1 ? lead : lead & (0x7Fu >> length);
    size_t taken = 1;
    bool broken = length == 0;
    while (!broken && taken < length && at + taken < text.size()) {
      const auto byte = static_cast<uint8_t>(text[at + taken++]);
      broken = (byte & 0xC0) != 0x80;
      value = value << 6 | (byte & 0x3F);
    }
    const bool valid = !broken && taken == length && value >= kLeast[length] && value < 0x110000 &&
                       !(value >= 0xD800 && value < 0xE000) && value != 0xFFFE && value != 0xFFFF;
    if (valid) {
      pieces.push_back({value});
    } else {
      pieces.push_back({0, taken, !broken && taken < length});
    }
    at += taken;
  }
  return pieces;
}

Bytes encoded(uint32_t c, const Bytes &) {
  const auto more = [c](uint32_t shift) { return static_cast<char>(0x80 | (c >> shift & 0x3F)); };
  if (c < 0x80) return {static_cast<char>(c)};
  if (c < 0x800) return {static_cast<char>(0xC0 | c >> 6), more(0)};
  if (c < 0x10000) return {static_cast<char>(0xE0 | c >> 12), more(6), more(0)};
  return {static_cast<char>(0xF0 | c >> 18), more(12), more(6), more(0)};
}

Units encoded(uint32_t c, const Units &) {
  if (c < 0x10000) return {static_cast<psp_wchar>(c)};
  return {static_cast<psp_wchar>(0xD800 + (c - 0x10000) / 0x400),
          static_cast<psp_wchar>(0xDC00 + (c - 0x10000) % 0x400)};
}

// What is stored in a destination with that much room, without the terminator, which only a
// conversion that succeeds puts behind it.
template <class To>
struct Outcome {
  To text;
  bool succeeds = true;

  int32_t result() const { return succeeds ? static_cast<int32_t>(text.size() + 1) : -1; }
};

template <class To>
Outcome<To> expected(const std::vector<Piece> &pieces, size_t room, bool replaces) {
  // To bytes, the first character that does not fit ends the text; to units, it is left out.
  constexpr bool kStops = sizeof(typename To::value_type) == 1;
  To text;
  for (const Piece &piece : pieces) {
    if (piece.invalid != 0 && !replaces) return {text, false};
    size_t count = std::max<size_t>(piece.invalid, 1);
    if (text.size() < room) {
      const To one = encoded(piece.invalid != 0 ? '?' : piece.character, text);
      for (; count != 0 && text.size() + one.size() <= room; --count) text += one;
    }
    if (count != 0 && piece.must_fit) return {text, false};
    if (count != 0 && kStops) break;
  }
  return {text};
}

// Into a destination of each size that matters, in a block that ends with it.
template <class To, class Convert>
void expect_result(const std::vector<Piece> &pieces, uint32_t mode, Convert &&convert_into) {
  using Element = typename To::value_type;
  const bool replaces = mode == PSP_UTF8_REPLACE;
  FUZZ_EXPECT(convert_into(nullptr, size_t{0}) ==
              expected<To>(pieces, SIZE_MAX, replaces).result());
  const size_t most = expected<To>(pieces, SIZE_MAX, true).text.size() + 4;
  for (size_t size = 1; size <= most; size += size == 20 && most > 28 ? most - 28 : 1) {
    Outcome<To> outcome = expected<To>(pieces, size - 1, replaces);
    std::vector<Element> block(size, Element{'#'});
    FUZZ_EXPECT(convert_into(block.data(), size) == outcome.result());
    if (outcome.succeeds) outcome.text += Element{};
    outcome.text.resize(size, Element{'#'});
    FUZZ_EXPECT(std::equal(block.begin(), block.end(), outcome.text.begin()));
  }
}

// The functions of one direction, and the other direction's that makes a string.
template <class To, class From>
struct Functions {
  int32_t (*plain)(To *, const From *, uint32_t size, uint32_t mode);
  int32_t (*counted)(To *, uint32_t size, const From *, uint32_t count, uint32_t mode);
  To *(*make)(const From *, uint32_t mode);
  From *(*make_back)(const To *, uint32_t mode);
};

constexpr Functions<psp_wchar, char> kToWide = {psp_utf8_to_wchar, psp_utf8_to_wchar_len,
                                                psp_convertToWchar, psp_convertToUTF8};
constexpr Functions<char, psp_wchar> kToUtf8 = {psp_wchar_to_utf8, psp_wchar_to_utf8_len,
                                                psp_convertToUTF8, psp_convertToWchar};

// The source stands at the end of a block of its own, behind some elements that move it.
template <class T, class F>
void expect_conversion(const Functions<T, F> &functions, const std::basic_string<F> &text,
                       size_t before, uint32_t mode) {
  using To = std::basic_string<T>;
  std::vector<F> block(before, F{'x'});
  block.insert(block.end(), text.begin(), text.end());
  block.shrink_to_fit();
  expect_result<To>(pieces_of(text), mode, [&](T *to, size_t size) {
    return functions.counted(to, static_cast<uint32_t>(size), block.data() + before,
                             static_cast<uint32_t>(text.size()), mode);
  });

  const std::basic_string<F> ended = text.substr(0, text.find(F{}));
  block.resize(before + ended.size());
  block.push_back(F{});
  block.shrink_to_fit();
  const F *const source = block.data() + before;
  const std::vector<Piece> pieces = pieces_of(ended);
  expect_result<To>(pieces, mode, [&](T *to, size_t size) {
    return functions.plain(to, source, static_cast<uint32_t>(size), mode);
  });

  T *made = functions.make(source, mode);
  const Outcome<To> whole = expected<To>(pieces, SIZE_MAX, mode == PSP_UTF8_REPLACE);
  FUZZ_EXPECT((made != nullptr) == whole.succeeds);
  if (made == nullptr) return;
  FUZZ_EXPECT(made == whole.text);
  // Valid text comes back as it was, but for the two units that are no characters in UTF-8.
  const std::vector<Piece> back = pieces_of(whole.text);
  const bool valid = std::none_of(back.begin(), back.end(), [](auto &p) { return p.invalid != 0; });
  if (mode != PSP_UTF8_REPLACE && valid) {
    F *again = functions.make_back(made, mode);
    FUZZ_EXPECT(again != nullptr && again == ended);
    psp_freeMem(again, nullptr);
  }
  psp_freeMem(made, nullptr);
}

}  // namespace

void fuzz::run(Input input) {
  const uint32_t mode = input.below(3);
  const size_t before = input.below(40), times = input.below(5) == 4 ? 9 : 1;
  const Bytes once = input.rest().substr(0, times == 1 ? 600 : 80);
  Bytes bytes;
  for (size_t count = 0; count < times; ++count) bytes += once;
  expect_conversion(kToWide, bytes, before, mode);
  Units units(bytes.size() / sizeof(psp_wchar), 0);
  if (!units.empty()) std::memcpy(units.data(), bytes.data(), units.size() * sizeof(psp_wchar));
  expect_conversion(kToUtf8, units, before, mode);
}
