// The formatting engine and the substring search against what a user would call instead: the C
// library, stb_sprintf (small and fast C) and {fmt} with a run-time format string.
//
// Every call of a case formats the next of kInputs values, of mixed lengths, so that no contender
// lives on one perfectly predicted path. Exponents have three digits with psp and two elsewhere;
// digests are taken without the difference.
#include <fmt/format.h>

#include <cctype>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <random>
#include <string>
#include <string_view>
#include <tuple>
#include <vector>

#include "bench.h"
#include "psp.h"

#define STB_SPRINTF_IMPLEMENTATION
#define STB_SPRINTF_STATIC
#if defined(__GNUC__)
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wunused-function"
#pragma GCC diagnostic ignored "-Wimplicit-fallthrough"
#pragma GCC diagnostic ignored "-Wconversion"
#endif
#include <stb/stb_sprintf.h>
#if defined(__GNUC__)
#pragma GCC diagnostic pop
#endif

namespace psp_bench {
namespace {

constexpr size_t kInputs = 1024;
constexpr size_t kBufferSize = 256;
constexpr uint32_t kSeed = 20240611;
constexpr double kAtMost = 1.0;

struct Record {
  int32_t small;
  int64_t large;
  double plain;   // what a program prints in fixed notation
  double spread;  // any size
  std::string text;
};

const std::vector<Record> &records() {
  static const std::vector<Record> all = [] {
    std::mt19937_64 random(kSeed);
    std::vector<Record> result(kInputs);
    for (Record &record : result) {
      const auto bits = [&](uint32_t most) { return random() >> (64 - 1 - random() % most); };
      const double unit = static_cast<double>(random() >> 11) * 0x1p-53;
      record.small = static_cast<int32_t>(bits(31)) * (random() % 4 == 0 ? -1 : 1);
      record.large = static_cast<int64_t>(bits(63)) * (random() % 4 == 0 ? -1 : 1);
      record.plain = unit * std::pow(10.0, static_cast<double>(random() % 8));
      record.spread = (unit + 0.1) * std::pow(10.0, static_cast<double>(random() % 60) - 30);
      record.text = "/var/lib/database/segment-0000000001.dat";
      record.text.resize(1 + random() % record.text.size());
    }
    return result;
  }();
  return all;
}

// "e+005" as "e+05", for digests.
std::string short_exponents(const char *text) {
  std::string result(text);
  for (size_t i = 0; i + 4 < result.size(); ++i) {
    if (result[i] == 'e' && (result[i + 1] == '+' || result[i + 1] == '-') &&
        result[i + 2] == '0' && std::isdigit(result[i + 4]) != 0) {
      result.erase(i + 2, 1);
    }
  }
  return result;
}

// Call formats one record into a buffer of the size (null with 0 to measure) and returns the
// length.
template <class Call>
Contender contender(const char *name, bool measure, Call call) {
  const auto run = [=](benchmark::State &state) {
    const std::vector<Record> &inputs = records();
    char buffer[kBufferSize];
    char *const place = measure ? nullptr : buffer;
    const size_t size = measure ? 0 : sizeof buffer;
    size_t next = 0;
    for (auto _ : state) {
      benchmark::DoNotOptimize(call(place, size, inputs[next]));
      benchmark::ClobberMemory();
      next = (next + 1) % kInputs;
    }
    std::string all;
    for (const Record &input : inputs) {
      const long long length = static_cast<long long>(call(place, size, input));
      all += measure ? std::to_string(length) : short_exponents(buffer);
      all += '\n';
    }
    return digest(all.data(), all.size());
  };
  return {name, run, std::string_view(name) == "psp" ? 0 : kAtMost};
}

// One format with its arguments, in all four engines.
template <class Arguments>
void add_format(const char *name, const char *format, const char *fmt_format, Arguments arguments,
                bool measure = false) {
  const auto with = [=](auto function) {
    return [=](char *buffer, size_t size, const Record &record) {
      return std::apply([&](auto... values) { return function(buffer, size, values...); },
                        arguments(record));
    };
  };
  std::vector<Contender> contenders;
  contenders.push_back(
      contender("psp", measure, with([=](char *buffer, size_t size, auto... values) {
                  return psp_snprintf(buffer, size, format, values...);
                })));
#if defined(__GNUC__)
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-security"
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
#endif
  contenders.push_back(
      contender("libc", measure, with([=](char *buffer, size_t size, auto... values) {
                  return std::snprintf(buffer, size, format, values...);
                })));
#if defined(__GNUC__)
#pragma GCC diagnostic pop
#endif
  contenders.push_back(
      contender("stb", measure, with([=](char *buffer, size_t size, auto... values) {
                  return stbsp_snprintf(buffer, static_cast<int>(size), format, values...);
                })));
  contenders.push_back(contender(
      "fmt", measure, with([=](char *buffer, size_t size, auto... values) {
        if (buffer == nullptr) {
          return fmt::formatted_size(fmt::runtime(fmt_format), values...);
        }
        const auto result = fmt::format_to_n(buffer, size - 1, fmt::runtime(fmt_format), values...);
        *result.out = '\0';
        return result.size;
      })));
  add_case(name, std::move(contenders));
}

void add_formats() {
  const auto small = [](const Record &r) { return std::tuple(r.small); };
  const auto large = [](const Record &r) { return std::tuple(static_cast<long long>(r.large)); };
  const auto hexadecimal = [](const Record &r) {
    return std::tuple(static_cast<uint32_t>(r.small));
  };
  const auto text = [](const Record &r) { return std::tuple(r.text.c_str()); };
  const auto plain = [](const Record &r) { return std::tuple(r.plain); };
  const auto spread = [](const Record &r) { return std::tuple(r.spread); };
  const auto line = [](const Record &r) {
    return std::tuple("pspfile.cpp", static_cast<uint32_t>(r.small) % 10000, r.text.c_str(),
                      r.plain, static_cast<long long>(r.large));
  };
  static constexpr char kLine[] = "%s:%u opened %s in %.3f ms, %lld bytes\n";
  static constexpr char kFmtLine[] = "{}:{} opened {} in {:.3f} ms, {} bytes\n";

  add_format("format/%d", "%d", "{}", small);
  add_format("format/%lld", "%lld", "{}", large);
  add_format("format/%x", "%x", "{:x}", hexadecimal);
  add_format("format/%08d", "%08d", "{:08}", small);
  add_format("format/%s", "%s", "{}", text);
  add_format("format/%-40s", "%-40s", "{:40}", text);
  add_format("format/%f", "%f", "{:f}", plain);
  add_format("format/%.2f", "%.2f", "{:.2f}", plain);
  add_format("format/%e", "%e", "{:e}", spread);
  add_format("format/%g", "%g", "{:g}", spread);
  add_format("format/log line", kLine, kFmtLine, line);
  add_format("format/measure %d", "%d", "{}", small, true);
  add_format("format/measure %s", "%s", "{}", text, true);
  add_format("format/measure %f", "%f", "{:f}", plain, true);
  add_format("format/measure log line", kLine, kFmtLine, line, true);
}

// Text of 64 KiB in which the pattern does not occur, or occurs at the end.
void add_search(const char *name, const std::string &pattern, bool at_end) {
  constexpr size_t kTextSize = 64 * 1024;
  constexpr std::string_view kWords =
      "Select the oldest transaction, then sweep the record versions that no reader needs. ";
  std::string text;
  while (text.size() < kTextSize) text += kWords;
  text.resize(kTextSize);
  if (at_end) text += pattern;

  const auto search = [=](const char *contender_name, auto function) {
    const auto run = [=](benchmark::State &state) {
      const char *found = nullptr;
      for (auto _ : state) {
        found = function(text.c_str(), pattern.c_str());
        benchmark::DoNotOptimize(found);
      }
      const uint64_t place = found == nullptr ? 1 : static_cast<uint64_t>(found - text.c_str()) + 2;
      return place;
    };
    return Contender{contender_name, run, std::string_view(contender_name) == "psp" ? 0 : kAtMost};
  };
  std::vector<Contender> contenders;
  contenders.push_back(
      search("psp", [](const char *t, const char *p) { return psp_strcasestr(t, p); }));
  contenders.push_back(search(
      "libc", [](const char *t, const char *p) -> const char * { return strcasestr(t, p); }));
  add_case(name, std::move(contenders));
}

const Registration kRegistration([] {
  add_formats();
  add_search("strcasestr/absent", "Zebra crossing", false);
  add_search("strcasestr/at the end", "Zebra crossing", true);
  add_search("strcasestr/common first letter", "Something ELSE", true);
  add_search("strcasestr/common first and last letter", "the TRADE", true);
});

}  // namespace
}  // namespace psp_bench
