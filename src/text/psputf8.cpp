// Module psputf8: conversion between UTF-8 and UTF-16, as the rest of the library and its clients
// call it. The rules are in utf8_engine.cpp.
//
// Owns nothing; any thread may call anything.
#include <algorithm>
#include <bit>
#include <cstring>

#include "core/checked.h"
#include "core/exported_call.h"
#include "psp.h"
#include "text/utf8_engine.h"

// Reading more than a string holds, as searching it by vectors does, is what sanitizers are to
// find.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define PSP_SANITIZED 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
#define PSP_SANITIZED 1
#endif
#endif
#if defined(__SSE2__) && !defined(PSP_SANITIZED)
#define PSP_SEARCH_BY_VECTORS 1
#include <emmintrin.h>
#endif

namespace psp::text {
namespace {

constexpr char kSource[] = "psputf8.cpp";

// A terminated string is searched for its end in pieces of this many elements, each converted
// before the next is searched: the source passes through the cache once, and a wide string that
// does not fit is not read to its end.
constexpr size_t kPiece = 4096;

// ---- Ends of strings ----------------------------------------------------------------------------

// Each returns the place of the first zero element, or kPiece when it is not among that many.

size_t piece_length(const char *bytes) {
  const void *end = std::memchr(bytes, 0, kPiece);
  return end == nullptr ? kPiece : static_cast<size_t>(static_cast<const char *>(end) - bytes);
}

size_t plain_piece_length(const psp_wchar *units) {
  size_t length = 0;
  while (length < kPiece && units[length] != 0) ++length;
  return length;
}

#if defined(PSP_SEARCH_BY_VECTORS)

uint32_t zero_units(const char *vector) {
  const __m128i units = _mm_load_si128(reinterpret_cast<const __m128i *>(vector));
  return static_cast<uint32_t>(_mm_movemask_epi8(_mm_cmpeq_epi16(units, _mm_setzero_si128())));
}

// Reads whole aligned vectors. None straddles two pages, so one that holds a unit of the string can
// be read.
size_t piece_length(const psp_wchar *units) {
  constexpr size_t kVectorBytes = sizeof(__m128i);
  const char *bytes = reinterpret_cast<const char *>(units);
  const size_t before = reinterpret_cast<uintptr_t>(units) % kVectorBytes;
  if (before % sizeof *units != 0) return plain_piece_length(units);
  uint32_t zeros = zero_units(bytes - before) >> before;
  size_t done = 0;  // bytes
  while (zeros == 0) {
    done += done == 0 ? kVectorBytes - before : kVectorBytes;
    if (done >= kPiece * sizeof *units) return kPiece;
    zeros = zero_units(bytes + done);
  }
  done += static_cast<size_t>(std::countr_zero(zeros));
  return std::min(kPiece, done / sizeof *units);
}

#else

size_t piece_length(const psp_wchar *units) { return plain_piece_length(units); }

#endif

// ---- Conversions --------------------------------------------------------------------------------

template <class Conversion, auto kWhole, class To, class From>
int32_t convert_string(To *destination, uint32_t size, const From *source, uint32_t mode) {
  const Kernels &kernels = fastest_kernels();
  size_t length = piece_length(source);
  if (length < kPiece) {
    return (kernels.*kWhole)(destination, size, source, static_cast<uint32_t>(length), mode);
  }
  Conversion conversion(&kernels, destination, size, mode);
  while (conversion.feed(source, length) && length == kPiece) {
    source += length;
    length = piece_length(source);
  }
  return conversion.finish();
}

int32_t convert_string(char *destination, uint32_t size, const psp_wchar *source, uint32_t mode) {
  return convert_string<ToUtf8, &Kernels::whole_to_utf8>(destination, size, source, mode);
}

int32_t convert_string(psp_wchar *destination, uint32_t size, const char *source, uint32_t mode) {
  return convert_string<ToWide, &Kernels::whole_to_wide>(destination, size, source, mode);
}

// The string in a block of the exact size, or null.
template <class To, class From>
To *convert_to_new(const From *source, uint32_t mode) {
  To *result = nullptr;
  const int32_t length = convert_string(result, 0, source, mode);
  if (length < 0) return nullptr;
  const size_t bytes = multiply_or_most(static_cast<size_t>(length), sizeof(To));
  result = static_cast<To *>(psp_getMem(bytes, nullptr, PSP_MEM_ALLOC, nullptr, kSource, __LINE__));
  if (result == nullptr) return nullptr;
  if (convert_string(result, static_cast<uint32_t>(length), source, mode) < 0) {
    psp_freeMem(result, nullptr);  // somebody has changed the source meanwhile
    return nullptr;
  }
  return result;
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
  const size_t bytes = multiply_or_most(std::max<size_t>(entries, 1), sizeof(char *));
  auto **strings =
      static_cast<char **>(psp_getMem(bytes, nullptr, PSP_MEM_ZERO, nullptr, kSource, __LINE__));
  if (strings == nullptr) return PSP_FAILED;
  for (size_t i = 0; i < entries; ++i) {
    if (arguments[i] == nullptr) continue;
    strings[i] = convert_to_new<char>(arguments[i], PSP_UTF8_STRICT);
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

using psp::text::convert_string;
using psp::text::convert_to_new;
using psp::text::fastest_kernels;

int32_t psp_wchar_to_utf8(char *destination, const psp_wchar *source, uint32_t size,
                          uint32_t mode) {
  return convert_string(destination, size, source, mode);
}

int32_t psp_wchar_to_utf8_len(char *destination, uint32_t size, const psp_wchar *source,
                              uint32_t count, uint32_t mode) {
  return fastest_kernels().whole_to_utf8(destination, size, source, count, mode);
}

int32_t psp_utf8_to_wchar(psp_wchar *destination, const char *source, uint32_t size,
                          uint32_t mode) {
  return convert_string(destination, size, source, mode);
}

int32_t psp_utf8_to_wchar_len(psp_wchar *destination, uint32_t size, const char *source,
                              uint32_t count, uint32_t mode) {
  return fastest_kernels().whole_to_wide(destination, size, source, count, mode);
}

char *psp_convertToUTF8(const psp_wchar *source, uint32_t mode) {
  return psp::core::exported_call([&] { return convert_to_new<char>(source, mode); });
}

psp_wchar *psp_convertToWchar(const char *source, uint32_t mode) {
  return psp::core::exported_call([&] { return convert_to_new<psp_wchar>(source, mode); });
}

psp_status psp_convertArgvToUTF8(int32_t count, psp_wchar *const *arguments, char ***result) {
  return psp::core::exported_call(
      [&] { return psp::text::convert_arguments(count, arguments, result); });
}
