// The definition of both conversions and their alternation with the kernels.
//
// Owns nothing and shares nothing: all state is in the conversion object.
#include "text/utf8_engine.h"

#include <algorithm>
#include <limits>

#include "text/utf8.h"

namespace psp::text {
namespace {

// How far the definition goes before it lets the kernels try again: a few elements where they had
// come far and met one odd character, more where they hardly got anywhere (their start costs about
// as much as this many elements).
constexpr size_t kShortStretch = 4;
constexpr size_t kLongStretch = 64;

constexpr uint64_t kMeasuring = std::numeric_limits<uint64_t>::max();

constexpr bool is_high_surrogate(uint32_t unit) { return (unit & 0xFC00) == 0xD800; }
constexpr bool is_low_surrogate(uint32_t unit) { return (unit & 0xFC00) == 0xDC00; }

// A destination without room even for the terminator is outside the contract; it fails the call
// instead of wrapping the limit.
template <class T>
bool is_unusable(const T *destination, uint32_t size) {
  return destination != nullptr && size == 0;
}

template <class T>
uint64_t limit_before_terminator(const T *destination, uint32_t size) {
  return destination == nullptr ? kMeasuring : uint64_t{size} - 1;
}

// Stores the terminator, which always has its place, and makes the result of the count.
template <class T>
int32_t terminate(T *destination, uint64_t count) {
  if (count >= std::numeric_limits<int32_t>::max()) return -1;
  if (destination != nullptr) destination[count] = 0;
  return static_cast<int32_t>(count + 1);
}

}  // namespace

// ---- Wide to UTF-8 ------------------------------------------------------------------------------

ToUtf8::ToUtf8(const Kernels *kernels, char *destination, uint32_t size, uint32_t mode)
    : kernels_(kernels),
      destination_(destination),
      limit_(limit_before_terminator(destination, size)),
      replace_(mode == PSP_UTF8_REPLACE),
      failed_(is_unusable(destination, size)) {}

Emit ToUtf8::emit(uint32_t code_point) {
  if (code_point >= kCodePointEnd) {
    if (!replace_) return Emit::kInvalid;
    code_point = '?';
  }
  const uint32_t length = utf8_length(code_point);
  if (limit_ - count_ < length) return Emit::kNoRoom;
  if (destination_ != nullptr) utf8_encode_char(code_point, destination_ + count_, nullptr);
  count_ += length;
  return Emit::kDone;
}

// One unit. A held surrogate whose replacement finds no room fails the conversion, where any other
// character without room just ends it.
ToUtf8::Step ToUtf8::take(uint32_t unit) {
  uint32_t code_point = unit;
  if (is_low_surrogate(unit)) {
    code_point = pending_ != 0 ? pending_ | (unit & 0x3FF) : kReplacement;
    pending_ = 0;
  } else if (pending_ != 0) {
    if (emit(kReplacement) != Emit::kDone) return Step::kFail;
    pending_ = 0;
  }
  if (is_high_surrogate(unit)) {
    pending_ = ((unit & 0x3FF) + 0x40) << 10;
    return Step::kNext;
  }
  const Emit result = emit(code_point);
  if (result == Emit::kDone) return Step::kNext;
  return result == Emit::kNoRoom ? Step::kStop : Step::kFail;
}

// Lets a kernel run over the units. Returns how many it took.
size_t ToUtf8::hurry(const psp_wchar *units, size_t count) {
  const Progress progress = destination_ == nullptr
                                ? kernels_->measure_utf8(units, count)
                                : kernels_->to_utf8(units, count, destination_ + count_,
                                                    static_cast<size_t>(limit_ - count_));
  count_ += progress.produced;
  return progress.consumed;
}

bool ToUtf8::feed(const psp_wchar *units, size_t count) {
  if (failed_) return false;
  while (count != 0) {
    size_t stretch = count;
    if (kernels_ != nullptr && pending_ == 0) {
      const size_t taken = hurry(units, count);
      units += taken;
      count -= taken;
      stretch = std::min(count, taken < kLongStretch ? kLongStretch : kShortStretch);
    } else if (kernels_ != nullptr) {
      stretch = 1;
    }
    for (; stretch != 0; --stretch, --count) {
      const Step step = take(*units++);
      if (step == Step::kNext) continue;
      failed_ = step == Step::kFail;
      return false;
    }
  }
  return true;
}

int32_t ToUtf8::finish() {
  if (failed_) return -1;
  if (pending_ != 0 && emit(kReplacement) != Emit::kDone) return -1;
  return terminate(destination_, count_);
}

// ---- UTF-8 to wide ------------------------------------------------------------------------------

ToWide::ToWide(const Kernels *kernels, psp_wchar *destination, uint32_t size, uint32_t mode)
    : kernels_(kernels),
      destination_(destination),
      limit_(limit_before_terminator(destination, size)),
      replace_(mode == PSP_UTF8_REPLACE),
      failed_(is_unusable(destination, size)) {}

Emit ToWide::emit(uint32_t code_point) {
  if (code_point == kReplacement) {
    if (!replace_) return Emit::kInvalid;
    code_point = '?';
  }
  const uint32_t length = code_point > 0xFFFF ? 2 : 1;
  if (limit_ - count_ < length) return Emit::kNoRoom;
  if (destination_ != nullptr) {
    psp_wchar *place = destination_ + count_;
    if (length == 1) {
      place[0] = static_cast<psp_wchar>(code_point);
    } else {
      place[0] = static_cast<psp_wchar>(0xD800 | ((code_point - 0x10000) >> 10));
      place[1] = static_cast<psp_wchar>(0xDC00 | ((code_point - 0x10000) & 0x3FF));
    }
  }
  count_ += length;
  return Emit::kDone;
}

Emit ToWide::emit_replacements(uint32_t times) {
  for (; times != 0; --times) {
    const Emit result = emit(kReplacement);
    if (result != Emit::kDone) return result;
  }
  return Emit::kDone;
}

// The open sequence is complete: its character, or a replacement for each of its bytes.
Emit ToWide::finish_sequence() {
  const bool is_surrogate = value_ >= 0xD800 && value_ <= 0xDFFF;
  const bool is_noncharacter = value_ == 0xFFFE || value_ == 0xFFFF;
  bool valid = true;  // two bytes: 0xC2 and above are always 0x80 and above
  if (sequence_ == 3) valid = value_ >= 0x800 && !is_surrogate && !is_noncharacter;
  if (sequence_ == 4) valid = value_ >= 0x10000 && value_ < kCodePointEnd;
  return valid ? emit(value_) : emit_replacements(sequence_);
}

// A byte between characters. False when the conversion has failed.
bool ToWide::take_first(uint8_t byte) {
  if (byte < 0x80) return emit(byte) != Emit::kInvalid;
  if (byte < 0xC2 || byte > 0xF4) return emit(kReplacement) != Emit::kInvalid;
  if (byte < 0xE0) {
    sequence_ = 2;
    value_ = byte & 0x1F;
  } else if (byte < 0xF0) {
    sequence_ = 3;
    value_ = byte & 0x0F;
  } else {
    sequence_ = 4;
    value_ = byte & 0x07;
  }
  expected_ = sequence_ - 1;
  return true;
}

// Any byte. A byte that breaks a sequence is replaced with it and starts nothing new.
bool ToWide::take(uint8_t byte) {
  if (expected_ == 0) return take_first(byte);
  if ((byte & 0xC0) != 0x80) {
    const uint32_t broken = sequence_ - expected_ + 1;
    expected_ = 0;
    return emit_replacements(broken) != Emit::kInvalid;
  }
  value_ = (value_ << 6) | (byte & 0x3F);
  if (--expected_ != 0) return true;
  return finish_sequence() != Emit::kInvalid;
}

// Lets a kernel run over the bytes. Returns how many it took. With the last place taken, what
// follows is only judged; with one place left, the definition alone knows which character gets it.
size_t ToWide::hurry(const char *bytes, size_t count) {
  if (destination_ != nullptr && limit_ != count_) {
    const Progress progress = kernels_->to_wide(bytes, count, destination_ + count_,
                                                static_cast<size_t>(limit_ - count_));
    count_ += progress.produced;
    return progress.consumed;
  }
  const Progress progress = kernels_->measure_wide(bytes, count);
  if (destination_ == nullptr) count_ += progress.produced;
  return progress.consumed;
}

bool ToWide::feed(const char *bytes, size_t count) {
  if (failed_) return false;
  while (count != 0) {
    size_t stretch = count;
    if (kernels_ != nullptr && expected_ == 0) {
      const size_t taken = hurry(bytes, count);
      bytes += taken;
      count -= taken;
      stretch = std::min(count, taken < kLongStretch ? kLongStretch : kShortStretch);
    } else if (kernels_ != nullptr) {
      stretch = 1;
    }
    for (; stretch != 0; --stretch, --count) {
      if (take(static_cast<uint8_t>(*bytes++))) continue;
      failed_ = true;
      return false;
    }
  }
  return true;
}

int32_t ToWide::finish() {
  if (failed_) return -1;
  if (expected_ != 0 && emit_replacements(sequence_ - expected_) != Emit::kDone) return -1;
  return terminate(destination_, count_);
}

// ---- Whole conversions --------------------------------------------------------------------------

namespace {

// Most conversions end with the kernel's first run: all is well-formed and fits.
template <class Conversion, auto kKernel, class To, class From>
int32_t convert_by(const Kernels &kernels, To *destination, uint32_t size, const From *source,
                   size_t count, uint32_t mode) {
  Progress done = {0, 0};
  if (destination != nullptr && size != 0) {
    done = (kernels.*kKernel)(source, count, destination, size - 1);
    if (done.consumed == count) return terminate(destination, done.produced);
  }
  Conversion conversion(&kernels, destination, size, mode);
  conversion.skip(done);
  conversion.feed(source + done.consumed, count - done.consumed);
  return conversion.finish();
}

}  // namespace

int32_t convert(const Kernels &kernels, psp_wchar *destination, uint32_t size, const char *source,
                uint32_t count, uint32_t mode) {
  return convert_by<ToWide, &Kernels::to_wide>(kernels, destination, size, source, count, mode);
}

int32_t convert(const Kernels &kernels, char *destination, uint32_t size, const psp_wchar *source,
                uint32_t count, uint32_t mode) {
  return convert_by<ToUtf8, &Kernels::to_utf8>(kernels, destination, size, source, count, mode);
}

}  // namespace psp::text
