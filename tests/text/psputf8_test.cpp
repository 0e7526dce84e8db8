// UTF-8 and UTF-16: the rules against a slow transcription, every kernel against the rules.
#include <gtest/gtest.h>
#include <sys/mman.h>

#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "psp.h"
#include "text/utf8.h"
#include "text/utf8_engine.h"

namespace {

using psp::text::ToUtf8;
using psp::text::ToWide;
using Wide = std::basic_string<psp_wchar>;

constexpr uint32_t kSeed = 20261124;

void append_utf8(std::string *out, uint32_t c) {
  char bytes[4];
  uint32_t length = 0;
  psp::text::utf8_encode_char(c, bytes, &length);
  out->append(bytes, length);
}

void append_wide(Wide *out, uint32_t c) {
  if (c > 0xFFFF) out->push_back(static_cast<psp_wchar>(0xD800 | ((c - 0x10000) >> 10)));
  out->push_back(static_cast<psp_wchar>(c > 0xFFFF ? 0xDC00 | ((c - 0x10000) & 0x3FF) : c));
}

bool encodable(uint32_t c) { return (c < 0xD800 || c > 0xDFFF) && c != 0xFFFE && c != 0xFFFF; }

TEST(Utf8, EncoderTakesEveryValueAndDoesWithoutEitherOutput) {
  for (const auto &[value, expected] :
       {std::pair{0x7Fu, 1u}, {0xFFFFu, 3u}, {0x10FFFFu, 4u}, {0x110000u, 0u}, {UINT32_MAX, 0u}}) {
    std::string bytes = "....";
    uint32_t length = 7;
    psp::text::utf8_encode_char(value, nullptr, &length);
    EXPECT_EQ(length, expected);
    psp::text::utf8_encode_char(value, bytes.data(), nullptr);
    EXPECT_EQ(std::min(bytes.find('.'), bytes.size()), expected);
  }
}

TEST(Utf8, EveryCharacterGoesThereAndBack) {
  std::string utf8;
  Wide wide;
  for (uint32_t c = 1; c <= 0x10FFFF; ++c) {
    if (!encodable(c)) continue;
    append_utf8(&utf8, c);
    append_wide(&wide, c);
  }
  ASSERT_EQ(utf8.compare(utf8.size() - 4, 4, "\xF4\x8F\xBF\xBF"), 0);
  std::vector<psp_wchar> units(wide.size() + 1);
  ASSERT_EQ(psp_utf8_to_wchar(nullptr, utf8.c_str(), 0, 0), int32_t(units.size()));
  ASSERT_EQ(psp_utf8_to_wchar(units.data(), utf8.c_str(), uint32_t(units.size()), 0),
            int32_t(units.size()));
  EXPECT_TRUE(Wide(units.data()) == wide);
  std::vector<char> bytes(utf8.size() + 1);
  ASSERT_EQ(psp_wchar_to_utf8(nullptr, wide.c_str(), 0, 0), int32_t(bytes.size()));
  ASSERT_EQ(psp_wchar_to_utf8(bytes.data(), wide.c_str(), uint32_t(bytes.size()), 0),
            int32_t(bytes.size()));
  EXPECT_TRUE(bytes.data() == utf8);
}

// The end is searched by aligned vectors and in pieces of 4096 elements.
TEST(Utf8, EndIsFoundAtEveryPlace) {
  std::vector<psp_wchar> units(9000, 'u');
  std::vector<char> bytes(9000, 'b');
  for (size_t start = 0; start < 9; ++start) {
    for (const size_t length : {0, 1, 7, 8, 9, 15, 16, 17, 33, 4095, 4096, 4097, 8192}) {
      const auto needed = static_cast<int32_t>(length + 1);
      units[start + length] = 0;
      bytes[start + length] = 0;
      EXPECT_EQ(psp_wchar_to_utf8(nullptr, &units[start], 0, 0), needed) << start;
      EXPECT_EQ(psp_utf8_to_wchar(nullptr, &bytes[start], 0, 0), needed) << start;
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
      // A client may have its units at an odd address where the processor does not mind.
      psp_wchar *odd = reinterpret_cast<psp_wchar *>(reinterpret_cast<char *>(&units[start]) + 1);
      std::memmove(odd, &units[start], needed * sizeof *odd);
      EXPECT_EQ(psp_wchar_to_utf8(nullptr, odd, 0, 0), needed) << start;
      std::fill_n(&units[start], needed + 1, 'u');
#endif
      units[start + length] = 'u';
      bytes[start + length] = 'b';
    }
  }
}

TEST(Utf8, LongTextThatDoesNotFitOrIsWrongEndsTheConversion) {
  char bytes[100];
  psp_wchar units[100];
  EXPECT_EQ(psp_wchar_to_utf8(bytes, Wide(9000, 'u').c_str(), 100, 0), 100);
  EXPECT_EQ(psp_utf8_to_wchar(units, std::string(9000, '\xFF').c_str(), 100, 0), -1);
  for (const psp::text::Kernels *kernels : psp::text::usable_kernels()) {  // not even for the end
    EXPECT_EQ(kernels->whole_to_utf8(bytes, 0, units, 1, 0), -1);
    EXPECT_EQ(kernels->whole_to_wide(units, 0, bytes, 1, 0), -1);
  }
  if (sizeof(void *) == 4) return;
  constexpr uint32_t kMost = INT32_MAX;  // a result with the end counted in would be negative
  void *zeros = mmap(nullptr, kMost, PROT_READ, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
  ASSERT_NE(zeros, MAP_FAILED);
  EXPECT_EQ(psp_utf8_to_wchar_len(nullptr, 0, static_cast<char *>(zeros), kMost, 0), -1);
  EXPECT_EQ(psp_utf8_to_wchar_len(nullptr, 0, static_cast<char *>(zeros), kMost - 1, 0), INT32_MAX);
  munmap(zeros, kMost);
}

TEST(Utf8, SetsOfKernelsAreChosenByAllThatTheyNeed) {
  constexpr uint32_t k1 = 1u << 23 | 1u << 27 | 1u << 28, kAvx2 = 1u << 3 | 1u << 5 | 1u << 8,
                     kAvx512 = kAvx2 | 1u << 16 | 3u << 30, kVbmi = 1u << 1 | 1u << 6;
  const std::pair<psp::text::Processor, size_t> rows[] = {
      {{}, 1},
      {{k1 & ~(1u << 27), kAvx512, kVbmi, 0xE6}, 1},
      {{k1, kAvx512, kVbmi, 0xE2}, 1},
      {{k1, kAvx512 & ~8u, kVbmi, 0xE6}, 1},
      {{k1, kAvx2, kVbmi, 0xE6}, 2},
      {{k1, kAvx512, kVbmi & ~2u, 0xE6}, 2},
      {{k1, kAvx512, kVbmi, 0x06}, 2},
      {{k1, kAvx512, kVbmi, 0xE6}, 3}};
  size_t most = 1;
#if defined(PSP_UTF8_AVX2)
  most = sizeof(void *) == 8 ? 3 : 2;
#endif
  for (const auto &[processor, sets] : rows) {
    EXPECT_EQ(psp::text::count_usable(processor), std::min(sets, most));
  }
}

// ---- Kernels against the rules ------------------------------------------------------------------

template <class Element>
struct Outcome {
  int32_t result;
  std::vector<Element> stored;
  bool operator==(const Outcome &) const = default;
};

// One conversion by a set of kernels (null: the rules alone), from memory of the exact size into
// memory of the exact size, so that AddressSanitizer sees every step too far. What is compared is
// all of that memory: nothing behind the result may change, nor behind the place of a failure.
template <class Conversion, class To, class From>
Outcome<To> run(const psp::text::Kernels *kernels, const std::basic_string<From> &source,
                uint32_t size, uint32_t mode, bool store) {
  const std::vector<From> exact(source.begin(), source.end());
  std::vector<To> room(size, To(0x55));
  Conversion conversion(kernels, store ? room.data() : nullptr, size, mode);
  const size_t piece = size % 3 == 0 ? exact.size() / 2 : exact.size();
  if (conversion.feed(exact.data(), piece)) {
    conversion.feed(exact.data() + piece, exact.size() - piece);
  }
  const int32_t result = conversion.finish();
  return {result, room};
}

// The same by the function behind the exported one.
template <class To, class From, class Whole>
Outcome<To> run_whole(Whole whole, const std::basic_string<From> &source, uint32_t size,
                      uint32_t mode, bool store) {
  const std::vector<From> exact(source.begin(), source.end());
  std::vector<To> room(size, To(0x55));
  const int32_t result = whole(store ? room.data() : nullptr, size, exact.data(),
                               static_cast<uint32_t>(exact.size()), mode);
  return {result, room};
}

template <class Conversion, class To, class From>
void expect_kernels_agree(const std::basic_string<From> &source, uint32_t size) {
  for (const uint32_t mode : {PSP_UTF8_STRICT, PSP_UTF8_REPLACE}) {
    for (const bool store : {true, false}) {
      const auto expected = run<Conversion, To>(nullptr, source, size, mode, store);
      for (const psp::text::Kernels *kernels : psp::text::usable_kernels()) {
        const auto whole = [kernels](auto... arguments) {
          if constexpr (sizeof(To) == 1) return kernels->whole_to_utf8(arguments...);
          if constexpr (sizeof(To) == 2) return kernels->whole_to_wide(arguments...);
        };
        ASSERT_TRUE((run<Conversion, To>(kernels, source, size, mode, store) == expected &&
                     run_whole<To>(whole, source, size, mode, store) == expected))
            << kernels->name << " mode " << mode << " size " << size << " source bytes "
            << testing::PrintToString(std::vector<From>(source.begin(), source.end()));
      }
    }
  }
}

// A character of the text's kind: mostly of one length, as real texts are.
uint32_t draw(std::mt19937 &random, uint32_t kind) {
  const uint32_t lowest[] = {0x20, 0x80, 0x800, 0x10000},
                 highest[] = {0x7E, 0x7FF, 0xFFFD, 0x10FFFF};
  if (kind == 4 || random() % 8 == 0) kind = random() % 4;
  for (;;) {
    const uint32_t c = lowest[kind] + random() % (highest[kind] - lowest[kind] + 1);
    if (encodable(c)) return c;
  }
}

TEST(Utf8Kernels, AgreeWithTheRulesOnTextsOfEveryKind) {
  std::mt19937 random(kSeed);
  for (int round = 0; round < 2500; ++round) {
    std::string utf8;
    Wide wide;
    const uint32_t kind = random() % 5;
    for (size_t left = random() % (round % 10 == 0 ? 400 : 90); left > 0; --left) {
      const uint32_t c = draw(random, kind);
      append_utf8(&utf8, c);
      append_wide(&wide, c);
    }
    if (round % 3 == 0 && !utf8.empty()) {  // damage
      utf8[random() % utf8.size()] = static_cast<char>(random());
      wide[random() % wide.size()] = static_cast<psp_wchar>(0xD800 + random() % 0x800);
    }
    const auto size_near = [&](size_t needed) {
      const size_t size = random() % 3 == 0 ? random() % (needed + 1) : needed;
      return static_cast<uint32_t>(std::max<size_t>(size + random() % 3, 1));
    };
    expect_kernels_agree<ToWide, psp_wchar>(utf8, size_near(wide.size()));
    expect_kernels_agree<ToUtf8, char>(wide, size_near(utf8.size()));
    if (HasFatalFailure()) return;
  }
}

// All pairs and the interesting longer sequences of bytes, at every place of a vector.
TEST(Utf8Kernels, AgreeWithTheRulesOnEveryShortSequence) {
  const std::string bytes(
      "\x41\x7F\x80\x8F\x90\x9F\xA0\xBF\xC0\xC1\xC2\xDF\xE0\xE1\xED\xEF\xF0\xF1\xF4\xF5\xFF");
  std::mt19937 random(kSeed);
  for (const char a : bytes) {
    for (const char b : bytes) {
      for (const char c : bytes) {
        for (const char last : {'\x41', '\x80', '\xBF'}) {
          std::string text(random() % 70, 'a');
          text += {a, b, c, last};
          text.append(random() % 70, 'z');
          expect_kernels_agree<ToWide, psp_wchar>(text, static_cast<uint32_t>(text.size() + 1));
          if (HasFatalFailure()) return;
        }
      }
    }
  }
  for (size_t count = 1; count < 80; ++count) {
    expect_kernels_agree<ToWide, psp_wchar>("a" + std::string(count, '\x80'), 100);
  }
  const psp_wchar units[] = {0x41,   0x80,   0x7FF,  0x800,  0xD7FF,
                             0xD800, 0xDBFF, 0xDC00, 0xDFFF, 0xE000};
  for (const psp_wchar a : units) {
    for (const psp_wchar b : units) {
      for (size_t before = 0; before < 70; ++before) {
        const Wide text = Wide(before, 'a') + a + b + Wide(70 - before, 'z');
        expect_kernels_agree<ToUtf8, char>(text, 300);
        if (HasFatalFailure()) return;
      }
    }
  }
}

// ---- Allocating forms ---------------------------------------------------------------------------

TEST(Utf8Strings, ConvertIntoBlocksOfTheDefaultTag) {
  ASSERT_EQ(psp_init(), PSP_OKAY);
  char *utf8 = psp_convertToUTF8(PSP_W("gr\u00FC\u00DF \U0001F600"), PSP_UTF8_STRICT);
  EXPECT_STREQ(utf8, "gr\xC3\xBC\xC3\x9F \xF0\x9F\x98\x80");
  psp_wchar *wide = psp_convertToWchar(utf8, PSP_UTF8_STRICT);
  EXPECT_TRUE(Wide(wide) == Wide(PSP_W("gr\u00FC\u00DF \U0001F600")));
  psp_freeMem(wide, nullptr);
  psp_freeMem(utf8, nullptr);
  EXPECT_EQ(psp_convertToWchar("\xFF", PSP_UTF8_STRICT), nullptr);

  psp_wchar one[] = {'o', 0xE9, 0}, bad[] = {0xD800, 0};
  psp_wchar *good_arguments[] = {one, nullptr, one}, *bad_arguments[] = {one, bad};
  char **strings = nullptr;
  ASSERT_EQ(psp_convertArgvToUTF8(3, good_arguments, &strings), PSP_OKAY);
  EXPECT_STREQ(strings[0], "o\xC3\xA9");
  EXPECT_EQ(strings[1], nullptr);
  EXPECT_STREQ(strings[2], "o\xC3\xA9");
  for (int i : {0, 2}) psp_freeMem(strings[i], nullptr);
  psp_freeMem(strings, nullptr);
  EXPECT_EQ(psp_convertArgvToUTF8(-1, good_arguments, &strings), PSP_FAILED);
  EXPECT_EQ(psp_convertArgvToUTF8(2, bad_arguments, &strings), PSP_FAILED);
  EXPECT_EQ(strings, nullptr);
  ASSERT_EQ(psp_convertArgvToUTF8(0, nullptr, &strings), PSP_OKAY);
  psp_freeMem(strings, nullptr);
  psp_term();
}

}  // namespace
