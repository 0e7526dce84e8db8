// UTF-8 and UTF-16 both ways against ICU, for texts of five kinds: 1 MiB of UTF-8, where throughput
// counts, and 32 bytes, where the call does. The mixed text draws each word's kind anew.
#include <unicode/ustring.h>

#include <random>
#include <string>
#include <vector>

#include "bench.h"
#include "psp.h"

namespace psp_bench {
namespace {

constexpr size_t kLongBytes = size_t{1} << 20;
constexpr size_t kShortBytes = 32;
constexpr uint32_t kSeed = 20261124;

enum Kind { kAscii, kLatin, kCjk, kEmoji, kMixed };
constexpr const char *kKindNames[] = {"ASCII", "Latin", "CJK", "emoji", "mixed"};

struct Text {
  std::string utf8;
  std::u16string wide;
};

char32_t draw(std::mt19937 &random, int kind) {
  switch (kind) {
    case kLatin:  // one letter in four has an accent
      return random() % 4 == 0 ? 0xC0 + random() % 0x40 : 'a' + random() % 26;
    case kCjk:
      return 0x4E00 + random() % 0x5000;
    case kEmoji:
      return 0x1F300 + random() % 0x300;
    default:
      return random() % 6 == 0 ? ' ' : 'a' + random() % 26;
  }
}

Text make_text(int kind, size_t bytes) {
  std::mt19937 random(kSeed);
  Text text;
  int word_kind = kind;
  size_t word_left = 0;
  for (;;) {
    if (kind == kMixed && word_left-- == 0) {
      word_kind = static_cast<int>(random() % 4);
      word_left = 1 + random() % 8;
    }
    const char32_t c = draw(random, word_kind);
    const size_t length = c < 0x80 ? 1 : c < 0x800 ? 2 : c < 0x10000 ? 3 : 4;
    if (text.utf8.size() + length > bytes) return text;
    char encoded[5] = {};
    char16_t units[3] = {};
    if (c > 0xFFFF) {
      units[0] = static_cast<char16_t>(0xD800 | ((c - 0x10000) >> 10));
      units[1] = static_cast<char16_t>(0xDC00 | ((c - 0x10000) & 0x3FF));
    } else {
      units[0] = static_cast<char16_t>(c);
    }
    psp_wchar_to_utf8(encoded, units, sizeof encoded, PSP_UTF8_STRICT);
    text.utf8 += encoded;
    text.wide += units;
  }
}

void add_to_wide(const std::string &name, const Text &text) {
  const auto run = [text](benchmark::State &state, auto convert) {
    std::vector<char16_t> room(text.wide.size() + 1);
    for (auto _ : state) {
      convert(text, room);
      benchmark::ClobberMemory();
    }
    return digest(room.data(), room.size() * sizeof(char16_t));
  };
  add_case(name, {{"psp",
                   [run](benchmark::State &state) {
                     return run(state, [](const Text &from, std::vector<char16_t> &to) {
                       psp_utf8_to_wchar_len(to.data(), static_cast<uint32_t>(to.size()),
                                             from.utf8.data(),
                                             static_cast<uint32_t>(from.utf8.size()), 0);
                     });
                   }},
                  {"ICU",
                   [run](benchmark::State &state) {
                     return run(state, [](const Text &from, std::vector<char16_t> &to) {
                       UErrorCode error = U_ZERO_ERROR;
                       int32_t length = 0;
                       u_strFromUTF8(to.data(), static_cast<int32_t>(to.size()), &length,
                                     from.utf8.data(), static_cast<int32_t>(from.utf8.size()),
                                     &error);
                     });
                   },
                   0.3}});
}

void add_to_utf8(const std::string &name, const Text &text) {
  const auto run = [text](benchmark::State &state, auto convert) {
    std::vector<char> room(text.utf8.size() + 1);
    for (auto _ : state) {
      convert(text, room);
      benchmark::ClobberMemory();
    }
    return digest(room.data(), room.size());
  };
  add_case(name, {{"psp",
                   [run](benchmark::State &state) {
                     return run(state, [](const Text &from, std::vector<char> &to) {
                       psp_wchar_to_utf8_len(to.data(), static_cast<uint32_t>(to.size()),
                                             from.wide.data(),
                                             static_cast<uint32_t>(from.wide.size()), 0);
                     });
                   }},
                  {"ICU",
                   [run](benchmark::State &state) {
                     return run(state, [](const Text &from, std::vector<char> &to) {
                       UErrorCode error = U_ZERO_ERROR;
                       int32_t length = 0;
                       u_strToUTF8(to.data(), static_cast<int32_t>(to.size()), &length,
                                   from.wide.data(), static_cast<int32_t>(from.wide.size()),
                                   &error);
                     });
                   },
                   0.3}});
}

const Registration registration([] {
  for (const size_t bytes : {kLongBytes, kShortBytes}) {
    const std::string size = bytes == kLongBytes ? ", 1 MiB" : ", 32 bytes";
    for (int kind = kAscii; kind <= kMixed; ++kind) {
      const Text text = make_text(kind, bytes);
      add_to_wide(std::string("utf/to UTF-16, ") + kKindNames[kind] + size, text);
      add_to_utf8(std::string("utf/to UTF-8, ") + kKindNames[kind] + size, text);
    }
  }
});

}  // namespace
}  // namespace psp_bench
