// Module psputf8: conversion between UTF-8 and UTF-16, as the rest of the library and its clients
// call it. The rules are in utf8_engine.cpp.
//
// Owns nothing; any thread may call anything.
#include <algorithm>
#include <bit>
#include <cstring>
#include <limits>

#include "core/checked.h"
#include "core/exported_call.h"
#include "psp.h"
#include "text/utf8_engine.h"

#if defined(__SSE2__) && !defined(__SANITIZE_ADDRESS__)
#if defined(__has_feature)
#define PSP_HAS_FEATURE(x) __has_feature(x)
#else
#define PSP_HAS_FEATURE(x) 0
#endif
#if !PSP_HAS_FEATURE(address_sanitizer)
#include <emmintrin.h>
#define PSP_SCAN_ALIGNED 1
#endif
#endif

namespace psp::text {
namespace {

constexpr char kSource[] = "psputf8.cpp";

// A terminated string is searched for its end in pieces of this many elements, each converted
// before the next is searched: the source passes through the cache once, and a wide string that
// does not fit is not read to its end.
constexpr size_t kPiece = 4096;

constexpr size_t kMaxResult = std::numeric_limits<int32_t>::max();

// ---- Ends of strings ----------------------------------------------------------------------------

// Both return the place of the first zero element, or kPiece when it is not among that many, and
// read nothing behind it that could be out of reach.

size_t piece_length(const char *bytes) {
  const void *end = std::memchr(bytes, 0, kPiece);
  return end == nullptr ? kPiece : static_cast<size_t>(static_cast<const char *>(end) - bytes);
}

#if defined(PSP_SCAN_ALIGNED)

// Reads whole aligned vectors, which never straddle two pages, so a vector with a byte of the
// string in it can be read. AddressSanitizer, which would object, gets the plain loop.
size_t piece_length(const psp_wchar *units) {
  constexpr size_t kVectorBytes = sizeof(__m128i);
  const size_t before = reinterpret_cast<uintptr_t>(units) % kVectorBytes;
  const char *vector = reinterpret_cast<const char *>(units) - before;
  // Bits of the bytes before the string are shifted out.
  const auto zeros_at = [](const char *at) {
    const __m128i block = _mm_load_si128(reinterpret_cast<const __m128i *>(at));
    return static_cast<uint32_t>(_mm_movemask_epi8(_mm_cmpeq_epi16(block, _mm_setzero_si128())));
  };
  uint32_t zeros = zeros_at(vector) >> before;
  if (zeros != 0) return static_cast<size_t>(std::countr_zero(zeros)) / 2;
  for (size_t done = (kVectorBytes - before) / 2; done < kPiece; done += kVectorBytes / 2) {
    zeros = zeros_at(reinterpret_cast<const char *>(units + done));
    if (zeros != 0)
      return std::min(kPiece, done + static_cast<size_t>(std::countr_zero(zeros)) / 2);
  }
  return kPiece;
}

#else

size_t piece_length(const psp_wchar *units) {
  size_t length = 0;
  while (length < kPiece && units[length] != 0) ++length;
  return length;
}

#endif

// ---- Conversions --------------------------------------------------------------------------------

// Converts count elements. Nearly every call ends with the kernel: all of the source is well-formed
// and fits. The conversion object takes over from where the kernel stopped.
template <class Conversion, class To, class From>
int32_t convert_counted(To *destination, uint32_t size, const From *source, uint32_t count,
                        uint32_t mode) {
  const Kernels &kernels = fastest_kernels();
  Progress done = {0, 0};
  if (destination != nullptr && size != 0) [[likely]] {
    done = kernels.convert(source, count, destination, size - 1);
    if (done.consumed == count && done.produced < kMaxResult) [[likely]] {
      destination[done.produced] = 0;
      return static_cast<int32_t>(done.produced + 1);
    }
  }
  Conversion conversion(&kernels, destination, size, mode);
  conversion.skip(done);
  conversion.feed(source + done.consumed, count - done.consumed);
  return conversion.finish();
}

// Feeds a conversion with a terminated string.
template <class Conversion, class Element>
int32_t convert_string(Conversion conversion, const Element *source) {
  for (;;) {
    const size_t length = piece_length(source);
    if (!conversion.feed(source, length) || length < kPiece) break;
    source += length;
  }
  return conversion.finish();
}

// The string in a block of the exact size, or null.
template <class Conversion, class To, class From>
To *convert_to_new(const From *source, uint32_t mode) {
  const Kernels *kernels = &fastest_kernels();
  const int32_t length = convert_string(Conversion(kernels, nullptr, 0, mode), source);
  size_t bytes;
  if (length < 0 || !checked_multiply(static_cast<size_t>(length), sizeof(To), &bytes)) {
    return nullptr;
  }
  auto *result =
      static_cast<To *>(psp_getMem(bytes, nullptr, PSP_MEM_ALLOC, nullptr, kSource, __LINE__));
  if (result == nullptr) return nullptr;
  const Conversion conversion(kernels, result, static_cast<uint32_t>(length), mode);
  if (convert_string(conversion, source) < 0) {  // somebody changed the source meanwhile
    psp_freeMem(result, nullptr);
    return nullptr;
  }
  return result;
}

char *convert_to_new_utf8(const psp_wchar *source, uint32_t mode) {
  return convert_to_new<ToUtf8, char>(source, mode);
}

// ---- Argument vectors ---------------------------------------------------------------------------

// Releases the first count strings, last first, and the array.
void release_strings(char **strings, size_t count) {
  while (count != 0) psp_freeMem(strings[--count], nullptr);
  psp_freeMem(strings, nullptr);
}

psp_status convert_arguments(int32_t count, psp_wchar *const *arguments, char ***result) {
  if (count < 0) return PSP_FAILED;
  // No arguments are an array too, which the caller releases like any other.
  const size_t entries = static_cast<size_t>(count);
  size_t bytes;
  if (!checked_multiply(std::max<size_t>(entries, 1), sizeof(char *), &bytes)) return PSP_FAILED;
  auto **strings =
      static_cast<char **>(psp_getMem(bytes, nullptr, PSP_MEM_ZERO, nullptr, kSource, __LINE__));
  if (strings == nullptr) return PSP_FAILED;
  for (size_t i = 0; i < entries; ++i) {
    if (arguments[i] == nullptr) continue;
    strings[i] = convert_to_new_utf8(arguments[i], PSP_UTF8_STRICT);
    if (strings[i] == nullptr) {
      release_strings(strings, i);
      *result = nullptr;
      return PSP_FAILED;
    }
  }
  *result = strings;
  return PSP_OKAY;
}

}  // namespace
}  // namespace psp::text

using psp::text::fastest_kernels;
using psp::text::ToUtf8;
using psp::text::ToWide;

int32_t psp_wchar_to_utf8(char *destination, const psp_wchar *source, uint32_t size,
                          uint32_t mode) {
  return psp::text::convert_string(ToUtf8(&fastest_kernels(), destination, size, mode), source);
}

int32_t psp_wchar_to_utf8_len(char *destination, uint32_t size, const psp_wchar *source,
                              uint32_t count, uint32_t mode) {
  return psp::text::convert_counted<ToUtf8>(destination, size, source, count, mode);
}

int32_t psp_utf8_to_wchar(psp_wchar *destination, const char *source, uint32_t size,
                          uint32_t mode) {
  return psp::text::convert_string(ToWide(&fastest_kernels(), destination, size, mode), source);
}

int32_t psp_utf8_to_wchar_len(psp_wchar *destination, uint32_t size, const char *source,
                              uint32_t count, uint32_t mode) {
  return psp::text::convert_counted<ToWide>(destination, size, source, count, mode);
}

char *psp_convertToUTF8(const psp_wchar *source, uint32_t mode) {
  return psp::core::exported_call([&] { return psp::text::convert_to_new_utf8(source, mode); });
}

psp_wchar *psp_convertToWchar(const char *source, uint32_t mode) {
  return psp::core::exported_call(
      [&] { return psp::text::convert_to_new<ToWide, psp_wchar>(source, mode); });
}

psp_status psp_convertArgvToUTF8(int32_t count, psp_wchar *const *arguments, char ***result) {
  return psp::core::exported_call(
      [&] { return psp::text::convert_arguments(count, arguments, result); });
}
