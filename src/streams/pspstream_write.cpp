// Module pspstream, writing: UTF-8 text to files of 8-bit text or UTF-16.
//
// A line feed goes out as carriage return and line feed. A byte that cannot be put ends a call;
// those before it stay written.
//
// Owns a stream's format buffer and the UTF-8 character that waits for its continuation bytes.
#include <algorithm>
#include <cstdarg>
#include <cstring>

#include "core/exported_call.h"
#include "streams/stream.h"

namespace psp::streams {

namespace {

constexpr char kSource[] = "pspstream_write.cpp";

constexpr size_t kShortTextBytes = 512;  // formatted texts below need no memory

// Writes a character as one unit or as a surrogate pair, whole or not at all: half a unit would put
// all that follows out of step.
bool write_code_point(Block *block, uint32_t value) {
  const bool pair = value > 0xFFFF;
  const uint32_t high = 0xD800 | (((value - 0x10000) >> 10) & 0x3FF);
  const uint32_t low = 0xDC00 | (value & 0x3FF);
  const uint32_t first = pair ? high : value;
  const unsigned char bytes[] = {
      static_cast<unsigned char>(first), static_cast<unsigned char>(first >> 8),
      static_cast<unsigned char>(low), static_cast<unsigned char>(low >> 8)};
  return write_whole(block, bytes, pair ? 4 : 2);
}

// Takes one byte of UTF-8 for 16-bit output. A byte out of place fails and changes nothing.
bool encode_utf16(psp_stream *stream, unsigned char byte) {
  if (stream->pending_count != 0) {
    if ((byte & 0xC0) != 0x80) return false;
    stream->pending_value = (stream->pending_value << 6) | (byte & 0x3F);
    return --stream->pending_count != 0 || write_code_point(stream->block, stream->pending_value);
  }
  if (byte < 0x80) return write_code_point(stream->block, byte);
  if (byte < 0xC2 || byte > 0xF4) return false;
  const int continuation_bytes = byte < 0xE0 ? 1 : byte < 0xF0 ? 2 : 3;
  stream->pending_count = static_cast<uint8_t>(continuation_bytes);
  stream->pending_value = byte & (0x3Fu >> continuation_bytes);
  return true;
}

inline bool put_byte(psp_stream *stream, unsigned char byte) {
  if (stream->width == 1) return write_whole(stream->block, &byte, 1);
  return stream->width == 2 && encode_utf16(stream, byte);
}

// A carriage return that fails is let pass: the line feed behind it tells.
bool put_character(psp_stream *stream, unsigned char byte) {
  if (byte == '\n') put_byte(stream, '\r');
  return put_byte(stream, byte);
}

bool put_characters(psp_stream *stream, const char *text, size_t length) {
  for (size_t index = 0; index < length; ++index) {
    if (!put_character(stream, static_cast<unsigned char>(text[index]))) return false;
  }
  return true;
}

// Puts a line of 8-bit text and its line end if the block has room for both, or else nothing.
inline bool put_line_within_block(Block *block, const char *text, size_t length) {
  if (length >= kBlockBytes || !has_room(*block, static_cast<uint32_t>(length) + 2)) return false;
  unsigned char *to = block->data + block->offset();
  std::memcpy(to, text, length);
  to[length] = '\r';
  to[length + 1] = '\n';
  advance_written(block, static_cast<uint32_t>(length) + 2);
  return true;
}

inline bool put_line(psp_stream *stream, const char *text, size_t length) {
  Block *block = stream->block;
  if (put_line_within_block(block, text, length)) return true;
  return write_bytes(block, text, length) && put_character(stream, '\n');
}

// put_characters for width 1.
bool put_lines(psp_stream *stream, const char *text, size_t length) {
  const char *const end = text + length;
  while (text != end) {
    const void *line_feed = std::memchr(text, '\n', static_cast<size_t>(end - text));
    if (line_feed == nullptr) {
      return write_bytes(stream->block, text, static_cast<size_t>(end - text));
    }
    const char *line_end = static_cast<const char *>(line_feed);
    if (!put_line(stream, text, static_cast<size_t>(line_end - text))) return false;
    text = line_end + 1;
  }
  return true;
}

// put_text of a string, whose first line feed is given, if any. A line ends where the next one is
// found, so that the string is not measured first.
int32_t put_string(psp_stream *stream, const char *string, const char *line_feed) {
  if (stream->width != 1) return put_text(stream, string, std::strlen(string));
  const char *text = string;
  while (line_feed != nullptr) {
    if (!put_line(stream, text, static_cast<size_t>(line_feed - text))) return -1;
    text = line_feed + 1;
    line_feed = std::strchr(text, '\n');
  }
  const size_t rest = std::strlen(text);
  if (!write_bytes(stream->block, text, rest)) return -1;
  text += rest;
  return static_cast<int32_t>(std::min<ptrdiff_t>(text - string, INT32_MAX));
}

// The usual case of put_string: one line of 8-bit text, and all of it goes into the block. False
// when it is another case, and then nothing is put.
inline bool put_single_line(psp_stream *stream, const char *string, const char *line_feed) {
  if (stream->width != 1 || line_feed == nullptr || line_feed[1] != '\0') return false;
  return put_line_within_block(stream->block, string, static_cast<size_t>(line_feed - string));
}

bool reserve_format_buffer(psp_stream *stream, uint32_t size) {
  if (stream->format_buffer_size >= size) return true;
  void *buffer = psp_extendMem(stream->format_buffer, size, nullptr, 0, 0, kSource, __LINE__);
  if (buffer == nullptr) return false;
  stream->format_buffer = static_cast<char *>(buffer);
  stream->format_buffer_size = size;
  return true;
}

// Formats and puts a text that was measured to have length bytes.
int32_t print_long(psp_stream *stream, int32_t length, const char *format, va_list arguments) {
  const uint32_t size = static_cast<uint32_t>(length) + 1;
  if (!reserve_format_buffer(stream, size)) return -1;
  const int32_t formatted = psp_vsnprintf(stream->format_buffer, size, format, arguments);
  if (formatted <= 0) return formatted;
  // What an argument points to may have grown since it was measured.
  return put_text(stream, stream->format_buffer, static_cast<size_t>(std::min(formatted, length)));
}

int32_t print(psp_stream *stream, const char *format, va_list arguments) {
  char text[kShortTextBytes];
  va_list again;
  va_copy(again, arguments);
  int32_t result = psp_vsnprintf(text, sizeof text, format, arguments);
  if (result >= static_cast<int32_t>(sizeof text)) {
    result = print_long(stream, result, format, again);
  } else if (result > 0) {
    result = put_text(stream, text, static_cast<size_t>(result));
  }
  va_end(again);
  return result;
}

}  // namespace

int32_t put_text(psp_stream *stream, const char *text, size_t length) {
  const bool done =
      stream->width == 1 ? put_lines(stream, text, length) : put_characters(stream, text, length);
  return done ? static_cast<int32_t>(std::min<size_t>(length, INT32_MAX)) : -1;
}

}  // namespace psp::streams

using namespace psp;
using core::exported_call;

int32_t psp_fputc(int32_t character, psp_stream *stream) {
  if (stream == nullptr) return 0;
  const auto byte = static_cast<unsigned char>(character);
  if (stream->width == 1 && byte != '\n' && has_room(*stream->block, 1)) [[likely]] {
    streams::write_whole(stream->block, &byte, 1);
    return 1;
  }
  return exported_call([&] { return streams::put_character(stream, byte) ? 1 : 0; });
}

int32_t psp_fputs(const char *string, psp_stream *stream) {
  if (string == nullptr || stream == nullptr) return -1;
  const char *line_feed = std::strchr(string, '\n');
  if (streams::put_single_line(stream, string, line_feed)) [[likely]]
    return static_cast<int32_t>(line_feed - string) + 1;
  return exported_call([&] { return streams::put_string(stream, string, line_feed); });
}

int32_t psp_vfprintf(psp_stream *stream, const char *format, va_list arguments) {
  if (stream == nullptr || format == nullptr) return -1;
  return exported_call([&] { return streams::print(stream, format, arguments); });
}

int32_t psp_fprintf(psp_stream *stream, const char *format, ...) {
  va_list arguments;
  va_start(arguments, format);
  const int32_t result = psp_vfprintf(stream, format, arguments);
  va_end(arguments);
  return result;
}
