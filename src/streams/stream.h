// The stream record, and what pspstream offers beside the functions of psp.h.
//
// Included by the modules of this folder, by ini/ for whole lines and texts, and by the service
// module for set_running_as_service.
#pragma once

#include <cstddef>
#include <cstdint>

#include "psp.h"
#include "streams/block.h"

namespace psp::streams {

inline constexpr uint32_t kPushBackEntries = 20;

// Writes length bytes of UTF-8 text, zero bytes included; a line feed goes out as carriage return
// and line feed. Obtains no memory and formats nothing, so that it may run under a channel's lock.
// The result is the length (at most INT32_MAX), or -1 at the first byte that fails.
int32_t put_text(psp_stream *stream, const char *text, size_t length);

// psp_fopenEx in mode "w", width 0, through files::open_replacement.
psp_stream *open_replacement(const char *name, const char *replaced, uint16_t mode_word);

// A line of a file, in a block of the default tag that its owner releases; begins as {}.
struct Line {
  char *text;
  uint32_t size;    // bytes of the block
  uint32_t length;  // bytes of the line, its line feed included; a zero byte follows
};

enum class LineResult { kRead, kFileEnd, kFailed, kNoMemory };

// psp_fGetLine for those who must lose nothing: a byte 0xFF is a byte of the line like any other,
// zero bytes are counted, and a failed read, or memory that runs out, is told from the end.
LineResult read_whole_line(psp_stream *stream, Line *line);

// While true, the log functions write nothing to the standard output and standard error channels: a
// service has no console. The log is still written.
void set_running_as_service(bool running);

}  // namespace psp::streams

struct psp_stream {
  psp::streams::Block *block;
  uint32_t width;            // bytes of a unit of the file
  uint32_t push_back_count;  // entries of push_back, the last of which is read first
  int32_t push_back[psp::streams::kPushBackEntries];
  uint32_t mark_length;         // bytes of the byte-order mark
  bool big_endian;              // order of the bytes of a unit, when read
  uint8_t pending_count;        // continuation bytes that the character being written still wants
  uint32_t pending_value;       // what came of that character so far
  char *format_buffer;          // for formatted texts too long for the stack
  uint32_t format_buffer_size;  // in bytes
};
