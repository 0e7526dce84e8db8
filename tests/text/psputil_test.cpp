// The small utilities, compared with plain definitions over small spaces that are walked whole.
#include <gtest/gtest.h>

#include <algorithm>
#include <cctype>
#include <cmath>
#include <cstring>
#include <limits>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "psp.h"

namespace {

constexpr size_t kNone = std::string::npos;

// A copy in a heap block of exactly its size, so that AddressSanitizer sees every byte read past
// the terminator.
std::unique_ptr<char[]> exact_copy(const std::string &text) {
  auto copy = std::make_unique<char[]>(text.size() + 1);
  std::memcpy(copy.get(), text.c_str(), text.size() + 1);
  return copy;
}

size_t search(const std::string &text, const std::string &pattern) {
  const auto text_copy = exact_copy(text);
  const auto pattern_copy = exact_copy(pattern);
  const char *found = psp_strcasestr(text_copy.get(), pattern_copy.get());
  return found == nullptr ? kNone : static_cast<size_t>(found - text_copy.get());
}

size_t plain_search(const std::string &text, const std::string &pattern) {
  const auto same = [](unsigned char a, unsigned char b) { return tolower(a) == tolower(b); };
  const auto found = std::search(text.begin(), text.end(), pattern.begin(), pattern.end(), same);
  return found == text.end() ? kNone : static_cast<size_t>(found - text.begin());
}

// The number's binary digits as letters.
std::string letters(uint32_t number, size_t length, const char *alphabet) {
  std::string result;
  for (size_t i = 0; i < length; ++i) result += alphabet[number >> i & 1];
  return result;
}

}  // namespace

TEST(StrCaseStr, FindsFirstPlaceInEveryShortText) {
  for (size_t text_length = 1; text_length <= 11; ++text_length) {
    for (uint32_t t = 0; t < 1u << text_length; ++t) {
      const std::string text = letters(t, text_length, "aB");
      for (size_t length = 1; length <= 5; ++length) {
        for (uint32_t p = 0; p < 1u << length; ++p) {
          const std::string pattern = letters(p, length, "Ab");
          ASSERT_EQ(search(text, pattern), plain_search(text, pattern)) << text << " " << pattern;
        }
      }
    }
  }
}

TEST(StrCaseStr, FindsFirstPlaceInLongTextsOfAllKinds) {
  constexpr uint32_t kSeed = 7;
  std::mt19937 random(kSeed);
  for (int round = 0; round < 3000; ++round) {
    // Repetitive texts make the search compare much; varied ones let it skip.
    const uint32_t kinds = round % 2 == 0 ? 2 : 30;
    std::string text;
    const size_t run = random() % 3 == 0 ? 3000 : random() % 40;
    for (size_t i = 0; i < run; ++i) text += "abaab"[i % (1 + random() % 5)];
    if (round % 4 == 0) std::fill(text.begin(), text.end(), 'a');
    const size_t varied = random() % 6000;
    for (size_t i = 0; i < varied; ++i) text += static_cast<char>('a' + random() % kinds);
    std::string pattern = "a";
    if (!text.empty()) pattern = text.substr(random() % text.size(), 1 + random() % 60);
    if (random() % 2 == 0) pattern[random() % pattern.size()] = 'b';
    for (char &c : pattern) c = static_cast<char>(random() % 2 == 0 ? std::toupper(c) : c);
    ASSERT_EQ(search(text, pattern), text.empty() ? kNone : plain_search(text, pattern))
        << "seed " << kSeed << " round " << round;
  }
}

TEST(StrCaseStr, FoldsLettersOnlyAndTakesNothingForEmpty) {
  EXPECT_EQ(search("one [two] {two}", "{TWO}"), 10u);
  EXPECT_EQ(search("gr\xC3\xA4n GR\xC3\x84N", "gr\xC3\x84n"), 6u);
  EXPECT_EQ(search("text", ""), 0u);
  EXPECT_EQ(search("", ""), kNone);
  EXPECT_STREQ(psp_strcasestr("text", nullptr), "text");
  EXPECT_EQ(psp_strcasestr(nullptr, "x"), nullptr);
}

template <class Char, class Copy>
void expect_bounded_copies(Copy copy) {
  constexpr Char kUntouched = 0x7E;
  const std::vector<Char> sources[] = {{0}, {'a', 0}, {'a', 'b', 'c', 'd', 'e', 'f', 0}};
  for (const std::vector<Char> &source : sources) {
    for (uint32_t size = 0; size <= 10; ++size) {
      std::vector<Char> expected(12, kUntouched);
      for (uint32_t i = 0; i < size; ++i) {
        expected[i] = i + 1 < size && i + 1 < source.size() ? source[i] : Char{0};
      }
      std::vector<Char> buffer(12, kUntouched);
      EXPECT_EQ(copy(buffer.data(), source.data(), size), buffer.data());
      EXPECT_EQ(buffer, expected) << "size " << size;
      if (source.size() == 1) {
        std::fill(buffer.begin(), buffer.end(), kUntouched);
        copy(buffer.data(), nullptr, size);
        EXPECT_EQ(buffer, expected) << "null, size " << size;
      }
    }
  }
}

TEST(BoundedCopy, CopiesCutsFillsAndTerminates) {
  expect_bounded_copies<char>(psp_strncpyZ);
  expect_bounded_copies<psp_wchar>(psp_wcsncpyZ);
}

TEST(Round, RoundsHalvesAwayFromZeroExactly) {
  const double below_half = std::nextafter(0.5, 0.0);
  const double odd = 4503599627370497.0;  // 2^52 + 1: adding 0.5 would give the next number
  const double infinity = std::numeric_limits<double>::infinity();
  for (const auto &[value, rounded] :
       std::vector<std::pair<double, double>>{{2.5, 3},
                                              {1.49, 1},
                                              {0.5, 1},
                                              {below_half, 0},
                                              {0.0, 0.0},
                                              {odd, odd},
                                              {2251799813685248.5, 2251799813685249},
                                              {1e300, 1e300},
                                              {infinity, infinity}}) {
    EXPECT_EQ(psp_round(value), rounded);
    EXPECT_EQ(psp_round(-value), -rounded);
  }
  EXPECT_TRUE(std::signbit(psp_round(-0.4)));
  EXPECT_TRUE(std::isnan(psp_round(std::nan(""))));
}

TEST(Align, TakesClassFromCodeAndNextMultiple) {
  const std::string codes = "cCvVnsilLdaDbfFg";
  const int32_t classes[] = {0, 2, 0, 2, 1, 1, 3, 3, 5, 3, 5, 5, 5, 4, 6, 0};
  for (int code = -128; code < 128; ++code) {
    const size_t index = code == 0 ? kNone : codes.find(static_cast<char>(code));
    EXPECT_EQ(psp_alignType(static_cast<char>(code)), index == kNone ? 0 : classes[index]) << code;
  }
  const uint32_t alignments[] = {1, 2, 2, 4, 4, 8, 8};
  for (int32_t alignment_class = -1; alignment_class <= 7; ++alignment_class) {
    const bool known = alignment_class >= 0 && alignment_class < 7;
    const uint32_t alignment = known ? alignments[alignment_class] : 1;
    for (uint32_t offset = 0; offset <= 0xFFFF; ++offset) {
      const uint32_t aligned = offset + (alignment - offset % alignment) % alignment;
      ASSERT_EQ(psp_align(static_cast<uint16_t>(offset), alignment_class), aligned & 0xFFFF);
    }
  }
}

TEST(SwapOrder, ReversesBytes) {
  EXPECT_EQ(psp_swaporder16(0xAABB), 0xBBAA);
  EXPECT_EQ(psp_swaporder32(0x11223344), 0x44332211u);
  EXPECT_EQ(psp_swaporder64(0x0102030405060708), 0x0807060504030201u);
  EXPECT_EQ(psp_swaporderf32(0x0000C0BF), -1.5f);
  EXPECT_EQ(psp_swaporderf64(0x000000000000F03F), 1.0);
}
