// The conversion engine: the rules of both directions, written once, unit by unit and byte by byte,
// with kernels to hurry over well-formed text.
//
// A conversion is an object on its caller's stack: made with the destination, fed with the source
// in pieces of any size, cut anywhere, and finished. Without kernels it is the definition alone,
// which is what the tests hold the kernels against.
//
// Included by psputf8.cpp and the module's tests.
#pragma once

#include <cstddef>
#include <cstdint>

#include "psp.h"
#include "text/utf8_kernels.h"

namespace psp::text {

// What became of one code point handed to a sink.
enum class Emit {
  kDone,     // stored or counted
  kNoRoom,   // it does not fit; nothing was stored
  kInvalid,  // strict mode and no valid character
};

// The code point that asks for the replacement character.
inline constexpr uint32_t kReplacement = 0xFFFFFFFF;

class ToUtf8 {
 public:
  // destination: null only measures, and size (bytes, terminator included) is not looked at.
  // kernels: null for the definition alone.
  ToUtf8(const Kernels *kernels, char *destination, uint32_t size, uint32_t mode);

  // Counts in what a kernel has stored from the start of the source.
  void skip(Progress done) { count_ += done.produced; }

  // Takes the next units of the source. False when no more are wanted: the conversion has failed,
  // or the destination is full.
  bool feed(const psp_wchar *units, size_t count);

  // Ends the source and terminates the text. Bytes stored or needed, the terminator included; -1
  // when the conversion has failed.
  int32_t finish();

 private:
  enum class Step { kNext, kStop, kFail };

  Step take(uint32_t unit);
  Emit emit(uint32_t code_point);
  size_t hurry(const psp_wchar *units, size_t count);

  const Kernels *kernels_;
  char *destination_;
  uint64_t limit_;        // bytes that may be stored before the terminator
  uint64_t count_ = 0;    // bytes stored or counted
  uint32_t pending_ = 0;  // a high surrogate's share of the code point; 0: none is held
  bool replace_;
  bool failed_ = false;
};

class ToWide {
 public:
  // As for ToUtf8; size in units.
  ToWide(const Kernels *kernels, psp_wchar *destination, uint32_t size, uint32_t mode);

  void skip(Progress done) { count_ += done.produced; }

  // Takes the next bytes of the source. False when the conversion has failed. A full destination
  // does not end it: the rest is still judged.
  bool feed(const char *bytes, size_t count);

  // As for ToUtf8; in units.
  int32_t finish();

 private:
  bool take(uint8_t byte);
  bool take_first(uint8_t byte);
  Emit finish_sequence();
  Emit emit(uint32_t code_point);
  Emit emit_replacements(uint32_t times);
  size_t hurry(const char *bytes, size_t count);

  const Kernels *kernels_;
  psp_wchar *destination_;
  uint64_t limit_;         // units that may be stored before the terminator
  uint64_t count_ = 0;     // units stored or counted
  uint32_t value_ = 0;     // of the open sequence so far
  uint32_t sequence_ = 0;  // bytes of the open sequence: 2, 3 or 4
  uint32_t expected_ = 0;  // bytes that it still wants; 0: none is open
  bool replace_;
  bool failed_ = false;
};

// Whole conversions of count elements, the terminator and the result included.
int32_t convert(const Kernels &kernels, psp_wchar *destination, uint32_t size, const char *source,
                uint32_t count, uint32_t mode);
int32_t convert(const Kernels &kernels, char *destination, uint32_t size, const psp_wchar *source,
                uint32_t count, uint32_t mode);

}  // namespace psp::text
