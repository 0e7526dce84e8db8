// The formatting engine. Every text is formatted through formatted(), which also tries each buffer
// size that matters. Directives and values at random are the fuzz target's.
#include <gtest/gtest.h>

#include <clocale>
#include <cmath>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <limits>
#include <memory>
#include <string>
#include <vector>

#include "psp.h"

namespace {

constexpr double kInfinity = std::numeric_limits<double>::infinity();
const std::string kFailed = "<failed>";

// The whole text, or kFailed. Shows on the way that measuring, formatting with every buffer size up
// to more than enough, the terminator and the bytes behind it are right.
std::string formatted(const char *format, ...) {
  va_list arguments, again;
  va_start(arguments, format);
  va_copy(again, arguments);
  const int32_t length = psp_vsnprintf(nullptr, 99, format, again);
  va_end(again);
  std::string text(static_cast<size_t>(std::max(length, 0)), '?');
  for (size_t size = text.size() + 3; size-- > 0;) {
    std::vector<char> buffer(text.size() + 8, '~');
    va_copy(again, arguments);
    EXPECT_EQ(psp_vsnprintf(buffer.data(), size, format, again), length) << format;
    va_end(again);
    if (length < 0) continue;
    if (size > text.size()) text.assign(buffer.data(), text.size());
    const size_t stored = size == 0 ? 0 : std::min(size - 1, text.size());
    EXPECT_EQ(std::string(buffer.data(), stored), text.substr(0, stored));
    const std::string rest =
        (size > 0 ? std::string(1, '\0') : "") + std::string(buffer.size(), '~');
    EXPECT_EQ(std::string(buffer.data() + stored, buffer.size() - stored),
              rest.substr(0, buffer.size() - stored))
        << format << " in " << size;
  }
  va_end(arguments);
  return length < 0 ? kFailed : text;
}

}  // namespace

TEST(Format, LaysIntegersOut) {
  EXPECT_EQ(formatted("%d of %i", 0, -5), "0 of -5");
  EXPECT_EQ(formatted("%5.3d|%-5d|%05d", 7, 7, -42), "  007|7    |-0042");
  EXPECT_EQ(formatted("%+d % d % u %+u", 0, 5, 5, 5), "+0  5 5 5");
  EXPECT_EQ(formatted("[%.0d][%+.0d][%3.d]", 0, 0, 0), "[][+][   ]");
  EXPECT_EQ(formatted("%#x %#x %#X %#o %#o", 0, 255, 255, 8, 0), "0 0xff 0XFF 010 0");
  EXPECT_EQ(formatted("%08.3d|%#08x|%-08d|%#010.0o", 7, 255, 7, 8),
            "     007|0x0000ff|7       |       010");
  EXPECT_EQ(formatted("%*d|%-*d|%*d|%.*d|%.*d", 4, 1, 4, 1, -4, 1, 3, 1, -1, 1),
            "   1|1   |1   |001|1");
}

TEST(Format, TakesArgumentsBySize) {
  EXPECT_EQ(formatted("%hhd %hhu %hd %hx", 0x180, -1, 0x18000, -1), "-128 255 -32768 ffff");
  EXPECT_EQ(formatted("%ld %lu %I32d", INT32_MIN, UINT32_MAX, -1), "-2147483648 4294967295 -1");
  EXPECT_EQ(formatted("%lld %llu %I64x %jd", INT64_MIN, UINT64_MAX, UINT64_MAX, INT64_MAX),
            "-9223372036854775808 18446744073709551615 ffffffffffffffff 9223372036854775807");
  EXPECT_EQ(
      formatted("%zd %zu %tx %td", size_t{0xFFFFFFFF}, size_t{7}, ptrdiff_t{-1}, ptrdiff_t{-1}),
      "4294967295 7 ffffffffffffffff -1");
  EXPECT_EQ(formatted("%zd", ~size_t{0}), sizeof(size_t) == 8 ? "-1" : "4294967295");
  EXPECT_EQ(formatted("%p %#p %.2p %12p|", reinterpret_cast<void *>(0x1234),
                      reinterpret_cast<void *>(0xAB), nullptr,
                      reinterpret_cast<void *>(uintptr_t{0x80000000})),
            "00001234 0X000000AB 00000000     80000000|");
  EXPECT_EQ(formatted("%Ld %d %Lp", 7, reinterpret_cast<void *>(1)), "0 7 00000001");
}

TEST(Format, PutsOutTextCharactersAndUnknownConversions) {
  EXPECT_EQ(formatted("%s|%.3s|%5s|%-5s|%05s|%ls", nullptr, nullptr, "ab", "ab", "ab", "x"),
            "(null)|(nu|   ab|ab   |   ab|x");
  EXPECT_EQ(formatted("%5c%-3c%c", 65, 0x142, 0), std::string("AB\0", 3));
  EXPECT_EQ(formatted("%5%%-%100%%"), "%%100%");
  EXPECT_EQ(formatted("a%yb%Id%5Qc%I6x%*yd%d", 4, 5), "abdc6xd5");
  const std::unique_ptr<char[]> open(new char[3]{'a', 'b', 'c'});  // not terminated
  EXPECT_EQ(formatted("%.3s%.0s%.2s", open.get(), nullptr, open.get()), "abcab");
}

TEST(Format, StoresCountThatWholeTextNeeds) {
  char buffer[4];
  uint8_t bits8[2] = {9, 9};
  uint16_t bits16[2] = {9, 9};
  uint32_t bits32[2] = {9, 9}, kept = 9;
  uint64_t bits64 = ~uint64_t{0};
  EXPECT_EQ(psp_snprintf(buffer, sizeof buffer, "%300d%hhn%hn%n%lln%n%Ln|", 1, bits8, bits16,
                         bits32, &bits64, nullptr, &kept),
            301);
  EXPECT_STREQ(buffer, "   ");
  EXPECT_EQ(bits8[0] + bits8[1], 300 % 256 + 9);
  EXPECT_EQ(bits16[0] + bits16[1], 309);
  EXPECT_EQ(bits32[0] + bits32[1], 309u);
  EXPECT_EQ(bits64, 300u);
  EXPECT_EQ(kept, 9u);
}

TEST(Format, EndsBeforeDirectiveThatFormatCutsOff) {
  for (const std::string tail : {"%", "%-", "%5", "%.", "%.3", "%h", "%hh", "%l", "%ll", "%z", "%L",
                                 "%I64", "%I32", "%#+ 0'-1.1j"}) {
    auto format = std::make_unique<char[]>(tail.size() + 3);  // no byte behind the terminator
    std::memcpy(format.get(), ("ab" + tail).c_str(), tail.size() + 3);
    EXPECT_EQ(formatted(format.get()), "ab") << tail;
  }
  EXPECT_EQ(formatted("%I") + formatted("%I6") + formatted("%I3"), "63");
}

TEST(Format, FailsForWhatCannotBeFormatted) {
  char buffer[6];
  for (const char *format : {"abc%2147483648d", "abc%.99999999999999999999d", "abc%fd", "abc%Ff"}) {
    std::memset(buffer, '~', sizeof buffer);
    EXPECT_EQ(psp_snprintf(buffer, sizeof buffer, format, 1e20), -1) << format;
    EXPECT_STREQ(buffer, "abc") << format;
  }
  EXPECT_EQ(psp_snprintf(buffer, 3, "abc%f", 1e20), -1);
  EXPECT_STREQ(buffer, "ab");
  EXPECT_EQ(psp_snprintf(buffer, sizeof buffer, nullptr), -1);
  EXPECT_STREQ(buffer, "");
  // Too long as a whole: the buffer still gets its part, and no sum wraps.
  EXPECT_EQ(psp_snprintf(nullptr, 0, "%2147483646d", 1), 2147483646);
  EXPECT_EQ(psp_snprintf(buffer, 3, "ab%*sc", INT32_MIN, ""), -1);
  EXPECT_STREQ(buffer, "ab");
  std::string many;
  for (int i = 0; i < 5; ++i) many += "%2147483647c%2147483647%%2147483647s%.2147483647Ld";
  EXPECT_EQ(
      psp_snprintf(buffer, sizeof buffer, many.c_str(), 65, "", 65, "", 65, "", 65, "", 65, ""),
      -1);
  EXPECT_STREQ(buffer, "A%   ");
  EXPECT_EQ(psp_snprintf(buffer, SIZE_MAX, "%d", 12345), 5);  // "there is room" must not wrap
  EXPECT_STREQ(buffer, "12345");
}

TEST(FormatFloating, FormatsAsTabled) {
  EXPECT_EQ(formatted("%.2f %f %.0f %#.0f", 0.125, -0.0, 2.5, 2.0), "0.13 0.000000 3 2.");
  EXPECT_EQ(formatted("%e %E %.2e %#.0e", 12345.678, 0.0, 9.9999999, 5.0),
            "1.234568e+004 0.000000E+000 1.00e+001 5.e+000");
  EXPECT_EQ(formatted("%g %g %g %g %g %#g %G", 1e5, 1e6, 1e-4, 1e-5, 0.0, 1.0, 1e-10),
            "100000 1e+006 0.0001 1e-005 0 1.00000 1E-010");
  EXPECT_EQ(formatted("%g %.0g %.3g %g", 9.9999999, 0.15, 999.9, 0.1), "10 0.2 1e+003 0.1");
  EXPECT_EQ(formatted("%+f|%-8f|%08f|% A", std::nan(""), -kInfinity, kInfinity, kInfinity),
            "+#NAN|-1.#INF |  1.#INF| 1.#INF");
  EXPECT_EQ(formatted("%.25f %f %a", 0.1, 1e19, 1.5),
            "0.1000000000000000000 10000000000000000000.000000 1.500000");
  EXPECT_EQ(formatted("%+010.2f|%-+9.1f|%Lf", -3.14159, 2.25, 1.0),
            "-000003.14|+2.3     |1.000000");
}

namespace {

// Makes a locale with that decimal point and separator and switches to it; false if the machine
// cannot. The texts are in localedef's notation.
bool switch_locale(const std::string &name, const std::string &point,
                   const std::string &separator) {
  static const std::string folder = testing::TempDir() + "psp_format_locale";
  const std::string source = folder + "/" + name + ".src";
  if (std::system(("mkdir -p '" + folder + "'").c_str()) != 0) return false;
  std::ofstream(source) << "LC_NUMERIC\ndecimal_point \"" << point << "\"\nthousands_sep \""
                        << separator << "\"\ngrouping 3;3\nEND LC_NUMERIC\n"
                        << "LC_CTYPE\ncopy \"POSIX\"\nEND LC_CTYPE\n";
  const std::string make =
      "localedef -c -f UTF-8 -i '" + source + "' '" + folder + "/" + name + "' >/dev/null 2>&1";
  [[maybe_unused]] const int warned = std::system(make.c_str());  // other categories are missing
  setenv("LOCPATH", folder.c_str(), 1);
  return std::setlocale(LC_NUMERIC, name.c_str()) != nullptr;
}

}  // namespace

TEST(FormatLocale, TakesDecimalPointAndSeparatorFromLocale) {
  EXPECT_EQ(formatted("%'d %'.1f", 1234567, 1234.5), "1234567 1234.5");  // "C" has no separator
  if (!switch_locale("comma", "<U002C>", "<U002E>")) GTEST_SKIP() << "cannot make a locale here";
  EXPECT_EQ(formatted("%f %.0f %#.0f %g", 1.5, 1.0, 1.0, 2.5), "1,500000 1 1, 2,5");
  EXPECT_EQ(formatted("%'d %'d %'d %d", 123, 1234, -1234567, 1234), "123 1.234 -1.234.567 1234");
  EXPECT_EQ(formatted("%'012d|%'12d|%'-8d|%'.6d|%'x", 12345, 123456, 1234, 1234, 0x12345),
            "00000012.345|     123.456|1.234   |01.234|12.345");
  EXPECT_EQ(formatted("[%'.0d] %'.2f %'012.1f", 0, 1e6, 1234.5), "[] 1.000.000,00 000001.234,5");
  ASSERT_TRUE(switch_locale("wide", "<U066B>", "<U202F>"));  // characters of two and three bytes
  EXPECT_EQ(formatted("%'d|%8.1f|%'13d", 1234567, 1.5, 1234567),
            "1\u202F234\u202F567|    1\u066B5|1\u202F234\u202F567");
  std::setlocale(LC_NUMERIC, "C");
}

TEST(MakeStr, MakesStringsOfExactSize) {
  ASSERT_EQ(psp_init(), PSP_OKAY);
  psp_tag *tag = psp_createTag(0);
  char *texts[] = {psp_makeStr(tag, "%s-%d-%.1f", "part", 7, 2.5),
                   psp_makeStrVA(__FILE__, __LINE__, tag, "%0300d", 1), psp_makeStr(tag, "")};
  EXPECT_STREQ(texts[0], "part-7-2.5");
  EXPECT_EQ(texts[1], std::string(299, '0') + "1");
  EXPECT_STREQ(texts[2], "");
  EXPECT_EQ(psp_makeStr(tag, "%f", 1e20), nullptr);
  EXPECT_EQ(psp_makeString(nullptr), nullptr);
  psp_freeTagMemory(tag, 1);
  char *text = psp_makeString("%lld", INT64_MIN);
  EXPECT_STREQ(text, "-9223372036854775808");
  psp_freeMem(text, nullptr);
  psp_term();
}
