// Module pspstream: buffered text files over file handles. This file makes, moves and ends streams;
// pspstream_read.cpp and pspstream_write.cpp translate between the file and the caller's UTF-8
// text, and block.cpp transfers.
//
// A stream owns its file handle, one block of the file, and the state of the translations. No
// locks: a stream is used by one thread at a time.
#include <cstring>

#include "core/checked.h"
#include "core/exported_call.h"
#include "files/files.h"
#include "os/os.h"
#include "streams/stream.h"

namespace psp::streams {

namespace {

constexpr char kSource[] = "pspstream.cpp";

struct OpenMode {
  uint32_t flags = PSP_OPEN_READ;
  bool writes = false;
};

bool parse_mode(const char *text, OpenMode *mode) {
  constexpr int kCharacters = 3;
  for (int index = 0; text != nullptr && index < kCharacters && text[index] != '\0'; ++index) {
    switch (text[index]) {
      case 'r':
        *mode = {};
        break;
      case 'w':
        *mode = {PSP_OPEN_WRITE | PSP_OPEN_CREATE | PSP_OPEN_TRUNCATE, true};
        break;
      case 'a':
        *mode = {PSP_OPEN_WRITE | PSP_OPEN_APPEND | PSP_OPEN_CREATE, true};
        break;
      case '+':
        mode->flags = (mode->flags & ~PSP_OPEN_WRITE) | PSP_OPEN_READWRITE;
        break;
      default:
        return false;
    }
  }
  return true;
}

// Which standard channel a name designates.
enum class Standard { kNone, kInput, kOutput };

Standard standard_channel(const char *name, uint16_t mode_word) {
  if ((mode_word & PSP_FILE_MEMORY) != 0) return Standard::kNone;
  if (std::strcmp(name, "stdin") == 0) return Standard::kInput;
  const bool output = std::strcmp(name, "stdout") == 0 || std::strcmp(name, "stderr") == 0;
  return output ? Standard::kOutput : Standard::kNone;
}

// Gives back everything that a stream owns. What waits to be written is lost.
void destroy_stream(psp_stream *stream) {
  if (stream->block != nullptr) psp_fileClose(stream->block->file);
  psp_freeMem(stream->block, nullptr);
  psp_freeMem(stream->format_buffer, nullptr);
  psp_freeMem(stream, nullptr);
}

// A stream of width 1 at the start of a file whose length is not taken. replaced: the file that the
// new one is to replace, or null.
psp_stream *make_stream(const char *name, uint32_t flags, uint16_t mode_word,
                        const char *replaced = nullptr) {
  auto *stream = static_cast<psp_stream *>(
      psp_getMem(sizeof(psp_stream), nullptr, PSP_MEM_ZERO, nullptr, kSource, __LINE__));
  if (stream == nullptr) return nullptr;
  auto *block = static_cast<Block *>(
      psp_getMem(sizeof(Block), nullptr, PSP_MEM_ZERO, nullptr, kSource, __LINE__));
  stream->block = block;
  stream->width = 1;
  if (block != nullptr) {
    block->file = replaced == nullptr ? psp_fileOpen(name, flags, mode_word)
                                      : files::open_replacement(name, replaced, mode_word);
  }
  if (block == nullptr || block->file == nullptr) {
    const os::LastErrorKeeper keeper;
    destroy_stream(stream);
    return nullptr;
  }
  block->readable = (flags & PSP_OPEN_WRITE) == 0;
  block->is_stored = (mode_word & PSP_FILE_MEMORY) != 0;
  block->movable = standard_channel(name, mode_word) == Standard::kNone;
  return stream;
}

struct Mark {
  unsigned char bytes[3];
  uint8_t length;
  uint8_t width;
  bool big_endian;
};

constexpr Mark kMarks[] = {
    {{0xEF, 0xBB, 0xBF}, 3, 1, false},
    {{0xFF, 0xFE}, 2, 2, false},
    {{0xFE, 0xFF}, 2, 2, true},
};

bool starts_with(Block *block, const Mark &mark) {
  for (uint32_t index = 0; index < mark.length; ++index) {
    if (!load_front(block, index + 1) || block->data[index] != mark.bytes[index]) return false;
  }
  return true;
}

void begin_reading(psp_stream *stream) {
  for (const Mark &mark : kMarks) {
    if (!starts_with(stream->block, mark)) continue;
    stream->width = mark.width;
    stream->big_endian = mark.big_endian;
    stream->mark_length = mark.length;
    stream->block->position = mark.length;
    return;
  }
}

void begin_writing(psp_stream *stream, uint32_t width, bool appends) {
  constexpr unsigned char kLittleEndianMark[] = {0xFF, 0xFE};
  Block *block = stream->block;
  if (width != 0) stream->width = width;
  if (appends) block->start = block->position = block->known_length;
  if (width != 2) return;
  stream->mark_length = sizeof kLittleEndianMark;
  if (block->known_length == 0) write_whole(block, kLittleEndianMark, sizeof kLittleEndianMark);
}

// False when the length cannot be told. That of a pipe or a device is 0.
bool take_length(Block *block) {
  const os::Error before = os::last_error();
  os::set_last_error(0);
  const int64_t length = psp_fileLength(block->file);
  if (length <= 0 && os::last_error() != 0) return false;
  block->known_length = static_cast<uint64_t>(length);
  os::set_last_error(before);
  return true;
}

psp_stream *open_stream(const char *name, const char *mode_text, uint32_t width,
                        uint16_t mode_word) {
  OpenMode mode;
  if (name == nullptr || !parse_mode(mode_text, &mode)) return nullptr;
  psp_stream *stream = make_stream(name, mode.flags, mode_word);
  if (stream == nullptr) return nullptr;
  const bool appends = (mode.flags & PSP_OPEN_APPEND) != 0;
  if (standard_channel(name, mode_word) != Standard::kOutput && !take_length(stream->block) &&
      appends) {
    // There is no end to start at, and the start would overwrite.
    const os::LastErrorKeeper keeper;
    destroy_stream(stream);
    return nullptr;
  }
  if (mode.writes) {
    begin_writing(stream, width, appends);
  } else {
    begin_reading(stream);
  }
  return stream;
}

int32_t flush(psp_stream *stream) {
  Block *block = stream->block;
  // What an output has taken is not written again: with nothing dirty and nothing read, the next
  // write begins a new block.
  if (block->dirty != 0) write_dirty(block);
  psp_fileSync(block->file);
  return stream->pending_count != 0 ? -1 : 0;
}

psp_status seek(psp_stream *stream, int32_t offset, int32_t origin) {
  Block *block = stream->block;
  uint64_t base = 0;
  switch (origin) {
    case PSP_SEEK_START:
      base = stream->mark_length;
      break;
    case PSP_SEEK_CURRENT:
      base = block->position;
      break;
    case PSP_SEEK_END:
      base = block->known_length;
      break;
    default:
      return PSP_FAILED;
  }
  int64_t position = 0;
  if (!checked_add(static_cast<int64_t>(base), int64_t{offset}, &position)) return PSP_FAILED;
  if (position < 0) return PSP_FAILED;
  block->position = static_cast<uint64_t>(position);
  return PSP_OKAY;
}

}  // namespace

psp_stream *open_replacement(const char *name, const char *replaced, uint16_t mode_word) {
  return make_stream(name, PSP_OPEN_WRITE, mode_word, replaced);
}

}  // namespace psp::streams

using namespace psp;
using core::exported_call;

psp_stream *psp_fopen(const char *name, const char *mode, uint32_t width) {
  return psp_fopenEx(name, mode, width, 0);
}

psp_stream *psp_fopenEx(const char *name, const char *mode, uint32_t width, uint16_t mode_word) {
  return exported_call([&] { return streams::open_stream(name, mode, width, mode_word); });
}

psp_stream *psp_fopen_std(const char *name) {
  if (name == nullptr) return nullptr;
  return exported_call([&] { return streams::make_stream(name, PSP_OPEN_READ, 0); });
}

void psp_fclose(psp_stream *stream) {
  if (stream == nullptr) return;
  exported_call([&] {
    if (stream->block->dirty != 0) streams::write_dirty(stream->block);
    streams::destroy_stream(stream);
  });
}

int32_t psp_fflush(psp_stream *stream) {
  if (stream == nullptr) return -1;
  return exported_call([&] { return streams::flush(stream); });
}

psp_status psp_fseek(psp_stream *stream, int32_t offset, int32_t origin) {
  return stream != nullptr ? streams::seek(stream, offset, origin) : PSP_FAILED;
}
