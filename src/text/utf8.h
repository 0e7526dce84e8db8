// UTF-8 encoding of a single code point.
//
// Included by the conversion engine (utf8_engine.h) and by the stream reader.
#pragma once

#include <cstdint>

namespace psp::text {

// The first value that is no code point.
inline constexpr uint32_t kCodePointEnd = 0x110000;

// Bytes of the code point in UTF-8, 1 to 4; 0 for a value that is no code point. Surrogates count
// as any other value of 3 bytes: whoever decodes decides whether they may occur.
constexpr uint32_t utf8_length(uint32_t code_point) {
  if (code_point < 0x80) return 1;
  if (code_point < 0x800) return 2;
  if (code_point < 0x10000) return 3;
  return code_point < kCodePointEnd ? 4 : 0;
}

// Stores the code point's bytes at bytes, which has room for them, and their number in *length.
// Either may be null. A value that is no code point has length 0 and stores nothing.
inline void utf8_encode_char(uint32_t code_point, char *bytes, uint32_t *length) {
  const uint32_t count = utf8_length(code_point);
  if (length != nullptr) *length = count;
  if (bytes == nullptr) return;
  const auto continuation = [code_point](uint32_t shift) {
    return static_cast<char>(0x80 | ((code_point >> shift) & 0x3F));
  };
  switch (count) {
    case 1:
      bytes[0] = static_cast<char>(code_point);
      break;
    case 2:
      bytes[0] = static_cast<char>(0xC0 | (code_point >> 6));
      bytes[1] = continuation(0);
      break;
    case 3:
      bytes[0] = static_cast<char>(0xE0 | (code_point >> 12));
      bytes[1] = continuation(6);
      bytes[2] = continuation(0);
      break;
    case 4:
      bytes[0] = static_cast<char>(0xF0 | (code_point >> 18));
      bytes[1] = continuation(12);
      bytes[2] = continuation(6);
      bytes[3] = continuation(0);
      break;
    default:
      break;
  }
}

}  // namespace psp::text
