// Module pspstream, reading: characters and lines of UTF-8 text from files of 8-bit text or UTF-16.
//
// A carriage return and a line feed read as one line feed. Every function reads as if character by
// character through read_character; runs of ordinary bytes of 8-bit text take shorter ways.
//
// Owns the caller's line buffer only while psp_fGetLine works on it.
#include <algorithm>
#include <bit>
#include <cstring>
#include <span>
#if defined(__SSE2__)
#include <emmintrin.h>
#endif

#include "core/checked.h"
#include "core/exported_call.h"
#include "streams/stream.h"
#include "text/utf8.h"

namespace psp::streams {

namespace {

constexpr char kSource[] = "pspstream_read.cpp";

constexpr uint32_t kLineGrowthBytes = 100;
constexpr int32_t kLineFeed = '\n';
constexpr int32_t kCarriageReturn = '\r';

// ---- Characters ---------------------------------------------------------------------------------

// False when the stack is full; the value is dropped then.
bool push_back(psp_stream *stream, int32_t value) {
  if (stream->push_back_count == kPushBackEntries) return false;
  stream->push_back[stream->push_back_count++] = value;
  return true;
}

// The next 16-bit unit; kEnd when fewer than two bytes are left, which are consumed.
int32_t read_unit(psp_stream *stream) {
  const int32_t first = read_byte(stream->block);
  const int32_t second = first != kEnd ? read_byte(stream->block) : kEnd;
  if (second == kEnd) return kEnd;
  return stream->big_endian ? (first << 8) | second : first | (second << 8);
}

// Reads one character of UTF-16 as UTF-8: returns its first byte and pushes the others back.
int32_t decode_utf16(psp_stream *stream) {
  const int32_t unit = read_unit(stream);
  if (unit < 0x80) return unit;  // kEnd too
  const int32_t kind = unit & 0xFC00;
  if (kind == 0xDC00) return '.';
  auto code_point = static_cast<uint32_t>(unit);
  if (kind == 0xD800) {
    // Whatever follows a high surrogate is taken as the low one.
    const int32_t second = read_unit(stream);
    if (second == kEnd) return kEnd;
    code_point = 0x10000 + ((code_point & 0x3FF) << 10) + (static_cast<uint32_t>(second) & 0x3FF);
  }
  char bytes[4] = {};
  uint32_t length = 0;
  text::utf8_encode_char(code_point, bytes, &length);
  for (uint32_t index = length - 1; index > 0; --index) {
    push_back(stream, static_cast<unsigned char>(bytes[index]));
  }
  return static_cast<unsigned char>(bytes[0]);
}

// One byte of the text, 0 to 255, before line ends are translated; kEnd at the end.
inline int32_t decode(psp_stream *stream) {
  if (stream->width == 1) return read_byte(stream->block);
  return stream->width == 2 ? decode_utf16(stream) : 0;
}

// A byte, or kEnd, as psp_fgetc gives it: signed, so that 0xFF is the end.
inline int32_t as_character(int32_t byte) { return static_cast<signed char>(byte); }

int32_t read_character(psp_stream *stream) {
  if (stream->push_back_count != 0) return stream->push_back[--stream->push_back_count];
  int32_t byte = decode(stream);
  if (byte != kCarriageReturn) return as_character(byte);

  // What a carriage return looks ahead to is itself a character read. So a run of them melts into a
  // line feed behind it; else all but the first are pushed back, below them what follows the run,
  // as far as there is room.
  uint64_t run = 0;
  for (; byte == kCarriageReturn; ++run) byte = decode(stream);
  if (byte == kLineFeed) return kLineFeed;
  push_back(stream, as_character(byte));
  while (--run != 0 && push_back(stream, kCarriageReturn)) {
  }
  return kCarriageReturn;
}

// Whether characters are bytes of the block, apart from carriage returns.
inline bool reads_plainly(const psp_stream &stream) {
  return stream.push_back_count == 0 && stream.width == 1;
}

// The usual case of read_character in a few instructions; false when it is another case.
inline bool read_plain_character(psp_stream *stream, int32_t *character) {
  Block *block = stream->block;
  const uint64_t offset = block->offset();
  if (!reads_plainly(*stream) || offset >= block->valid) return false;
  const unsigned char byte = block->data[offset];
  if (byte == kCarriageReturn) return false;
  ++block->position;
  *character = as_character(byte);
  return true;
}

// ---- Lines --------------------------------------------------------------------------------------

// How many of the bytes come before the first line feed, carriage return or 0xFF (which reads as
// the end). The bytes lie in a block: less than a vector behind them may be loaded.
inline size_t plain_run(std::span<const unsigned char> bytes) {
  const size_t count = bytes.size();
#if defined(__SSE2__)
  const __m128i line_feeds = _mm_set1_epi8('\n');
  const __m128i carriage_returns = _mm_set1_epi8('\r');
  const __m128i ends = _mm_set1_epi8(-1);
  for (size_t index = 0; index < count; index += kVectorBytes) {
    const __m128i chunk = _mm_loadu_si128(reinterpret_cast<const __m128i *>(bytes.data() + index));
    const __m128i stops = _mm_or_si128(
        _mm_or_si128(_mm_cmpeq_epi8(chunk, line_feeds), _mm_cmpeq_epi8(chunk, carriage_returns)),
        _mm_cmpeq_epi8(chunk, ends));
    const auto mask = static_cast<uint32_t>(_mm_movemask_epi8(stops));
    if (mask != 0) return std::min(count, index + static_cast<size_t>(std::countr_zero(mask)));
  }
  return count;
#else
  size_t index = 0;
  while (index < count && bytes[index] != '\n' && bytes[index] != '\r' && bytes[index] != 0xFF) {
    ++index;
  }
  return index;
#endif
}

// At most `most` bytes of the block from the position on, if they are what is read next.
inline std::span<const unsigned char> next_bytes(const psp_stream &stream, size_t most) {
  const Block &block = *stream.block;
  const uint64_t offset = block.offset();
  if (!reads_plainly(stream) || offset >= block.valid) return {};
  return {block.data + offset, std::min(most, static_cast<size_t>(block.valid - offset))};
}

// Copies what the block holds up to the next byte out of the ordinary, at most room bytes.
inline size_t read_plain_run(psp_stream *stream, char *buffer, size_t room) {
  const auto bytes = next_bytes(*stream, room);
  const size_t length = plain_run(bytes);
  if (length != 0) std::memcpy(buffer, bytes.data(), length);
  stream->block->position += length;
  return length;
}

// The usual case of a line: all of it is in the block, and there is room for it and a terminator.
// False when it is another case, and then nothing is read.
inline bool read_line_within_block(psp_stream *stream, char *buffer, size_t room) {
  const auto bytes = next_bytes(*stream, room + 1);
  const size_t length = plain_run(bytes);
  if (length >= bytes.size() || length >= room) return false;
  size_t line_end = 1;
  if (bytes[length] == '\r' && length + 1 < bytes.size()) line_end = 2;
  if (bytes[length + line_end - 1] != '\n') return false;
  std::memcpy(buffer, bytes.data(), length);
  buffer[length] = '\n';
  buffer[length + 1] = '\0';
  stream->block->position += length + line_end;
  return true;
}

struct LinePart {
  size_t length;
  bool whole;  // ends with a line feed
};

// Reads up to a line feed, the end or room characters, whichever comes first.
LinePart read_line_part(psp_stream *stream, char *buffer, size_t room) {
  size_t length = 0;
  while (length < room) {
    length += read_plain_run(stream, buffer + length, room - length);
    if (length == room) break;
    int32_t character = 0;
    if (!read_plain_character(stream, &character)) character = read_character(stream);
    if (character == kEnd) break;
    buffer[length++] = static_cast<char>(character);
    if (buffer[length - 1] == '\n') return {length, true};
  }
  return {length, false};
}

enum class Part { kWhole, kBeginning, kNothing };

// Reads on behind what the line holds, and terminates it.
Part append_part(psp_stream *stream, Line *line) {
  const size_t room = line->size - line->length - 1;
  const LinePart part = read_line_part(stream, line->text + line->length, room);
  line->length += static_cast<uint32_t>(part.length);
  line->text[line->length] = '\0';
  if (part.length == 0 && room != 0) return Part::kNothing;
  return part.whole ? Part::kWhole : Part::kBeginning;
}

bool grow(Line *line, uint32_t growth_bytes = kLineGrowthBytes) {
  uint32_t size = 0;
  if (!checked_add(line->size, growth_bytes, &size)) return false;
  void *text = psp_extendMem(line->text, size, nullptr, 0, 0, kSource, __LINE__);
  if (text == nullptr) return false;
  line->text = static_cast<char *>(text);
  line->size = size;
  return true;
}

// Whether the line could be read whole, to its line feed or the end. A buffer that cannot grow is
// kept with the beginning of the line.
bool read_rest(psp_stream *stream, Line *line, Part part) {
  while (part == Part::kBeginning) {
    if (!grow(line)) return false;
    part = append_part(stream, line);
  }
  return true;
}

char *read_line(psp_stream *stream, char **buffer, uint32_t *size) {
  // Other widths give zero bytes without end.
  if (stream->width != 1 && stream->width != 2) return nullptr;
  const bool obtained = *buffer == nullptr;
  Line line = {*buffer, *size != 0 && !obtained ? *size : kLineGrowthBytes, 0};
  if (obtained) {
    line.text = static_cast<char *>(
        psp_getMem(line.size, nullptr, PSP_MEM_ZERO, nullptr, kSource, __LINE__));
    if (line.text == nullptr) return nullptr;
  }
  const Part first = append_part(stream, &line);
  if (first == Part::kNothing) {
    if (obtained) psp_freeMem(line.text, nullptr);
    return nullptr;
  }
  const bool read = read_rest(stream, &line, first);
  *buffer = line.text;
  *size = line.size;
  return read ? line.text : nullptr;
}

}  // namespace

LineResult read_whole_line(psp_stream *stream, Line *line) {
  constexpr uint32_t kFirstBytes = 256;
  const Block &block = *stream->block;
  line->length = 0;
  for (;;) {
    if (line->size - line->length < 2 && !grow(line, std::max(line->size, kFirstBytes))) {
      return LineResult::kNoMemory;
    }
    const uint32_t room = line->size - line->length - 1;
    const LinePart part = read_line_part(stream, line->text + line->length, room);
    line->length += static_cast<uint32_t>(part.length);
    line->text[line->length] = '\0';
    if (part.whole) return LineResult::kRead;
    if (part.length == room) continue;
    // The end leaves an empty block; a byte 0xFF, which reads as the end, stands in one.
    if (block.valid == 0) break;
    line->text[line->length++] = '\xFF';
    line->text[line->length] = '\0';
  }
  const bool is_short = block.known_length != 0 && !past_known_length(block, block.position);
  if (block.read_failed || is_short) return LineResult::kFailed;
  return line->length != 0 ? LineResult::kRead : LineResult::kFileEnd;
}

}  // namespace psp::streams

using namespace psp;
using core::exported_call;

int32_t psp_fgetc(psp_stream *stream) {
  if (stream == nullptr) return streams::kEnd;
  int32_t character = 0;
  if (streams::read_plain_character(stream, &character)) [[likely]]
    return character;
  return exported_call([&] { return streams::read_character(stream); });
}

int32_t psp_fungetc(int32_t character, psp_stream *stream) {
  return stream != nullptr && streams::push_back(stream, character) ? character : -1;
}

char *psp_fgets(char *buffer, int32_t size, psp_stream *stream) {
  if (buffer == nullptr || size <= 0 || stream == nullptr) return nullptr;
  const auto room = static_cast<size_t>(size - 1);
  if (streams::read_line_within_block(stream, buffer, room)) [[likely]]
    return buffer;
  return exported_call([&]() -> char * {
    const streams::LinePart part = streams::read_line_part(stream, buffer, room);
    if (part.length == 0 && room != 0) return nullptr;
    buffer[part.length] = '\0';
    return buffer;
  });
}

char *psp_fGetLine(psp_stream *stream, char **buffer, uint32_t *size) {
  if (stream == nullptr || buffer == nullptr || size == nullptr) return nullptr;
  return exported_call([&] { return streams::read_line(stream, buffer, size); });
}
