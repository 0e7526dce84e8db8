// Module pspbufferedstream: typed values over a byte transport that the client supplies, collected
// in blocks of kCapacity bytes so that the transport is called once a block, not once a value.
//
// Owns nothing between calls; an input or output buffer is one block of the default tag, its record
// and its bytes together. No locks: a buffer is used by one thread at a time.
//
// A transport function may do anything, jump out included (its own allocation may fail in an armed
// tag). So it is called outside of core::exported_call, with the record as the next call is to find
// it, and with nothing in hand that hangs on no record.
#include <algorithm>
#include <bit>
#include <cstring>

#include "core/exported_call.h"
#include "psp.h"

namespace {

constexpr char kSource[] = "pspbufferedstream.cpp";

constexpr uint32_t kCapacity = 5000;  // bytes that one call of a transport moves

}  // namespace

// Both buffers count up to 0 from minus the bytes that are left, as seen from the end: one addition
// tells whether there is enough for a value, and the sum is where the value ends.
//
// The last -unread bytes before end are still to be handed out.
struct psp_inputBuff {
  ptrdiff_t unread;          // 0 or less
  const unsigned char *end;  // of what the transport filled
  bool swap;                 // values arrive in reversed order
  psp_transportRead read;
  psp_transportReadTimed timed_read;  // null: read serves
  void *context;
  char *string;  // a string on its way; left behind only by a transport that jumped
  unsigned char bytes[kCapacity];
};

// All but the last -free bytes wait for the transport. A full buffer waits too, until more bytes
// come.
struct psp_outputBuff {
  ptrdiff_t free;  // 0 or less
  bool swap;       // as above
  psp_transportWrite write;
  void *context;
  unsigned char bytes[kCapacity];

  unsigned char *end() { return bytes + kCapacity; }
};

namespace psp::buffers {

namespace {

constexpr uint32_t kNullString = UINT32_MAX;  // the length that stands for a null string

// A string's length comes from the wire and may be forged. A longer string than this starts with
// this many bytes, terminator included, and its memory doubles only as its bytes really arrive.
constexpr size_t kTrustedBytes = (size_t{1} << 20) + 1;

uint8_t reversed(uint8_t bits) { return bits; }
uint16_t reversed(uint16_t bits) { return __builtin_bswap16(bits); }
uint32_t reversed(uint32_t bits) { return __builtin_bswap32(bits); }
uint64_t reversed(uint64_t bits) { return __builtin_bswap64(bits); }

// The value's bits, reversed if the buffer says so. Floats come through here as integers: a
// reversed float may look like a signalling NaN, which a floating-point register would change.
// Written so that values to be reversed jump nowhere and others over one instruction.
template <class Bits>
inline Bits in_order(Bits bits, bool swap) {
  if (swap) [[likely]]
    bits = reversed(bits);
  return bits;
}

// As memcpy, whose call costs more than the copying of a few bytes, and which moves 64 bytes and
// more by the widest vectors there are: the caller, who mostly looks at his bytes at once, then
// waits until a vector that straddles two lines of the cache has left the store queue.
inline void copy(void *destination, const void *source, size_t count) {
  constexpr size_t kVectorBytes = 16;
  constexpr size_t kFewBytes = 128;
  if (count < kVectorBytes || count > kFewBytes) {
    std::memcpy(destination, source, count);
    return;
  }
  auto *to = static_cast<unsigned char *>(destination);
  const auto *from = static_cast<const unsigned char *>(source);
  const size_t last = count - kVectorBytes;
#pragma GCC unroll 8
  for (size_t done = 0; done < last; done += kVectorBytes) {
    std::memcpy(to + done, from + done, kVectorBytes);
  }
  std::memcpy(to + last, from + last, kVectorBytes);
}

// ---- Input --------------------------------------------------------------------------------------

// Asks the transport for bytes. A read that failed has delivered nothing, whatever it stored.
psp_status refill(psp_inputBuff *buff, uint32_t timeout) {
  uint32_t filled = 0;
  const psp_status status =
      timeout != 0 && buff->timed_read != nullptr
          ? buff->timed_read(buff->context, buff->bytes, kCapacity, &filled, timeout)
          : buff->read(buff->context, buff->bytes, kCapacity, &filled);
  if (status != PSP_OKAY) return status;
  filled = std::min(filled, kCapacity);
  buff->end = buff->bytes + filled;
  buff->unread = -static_cast<ptrdiff_t>(filled);
  return PSP_OKAY;
}

// Takes *wanted bytes to the destination; null skips them. Afterwards *wanted tells how many are
// missing: none exactly if the result is PSP_OKAY.
psp_status take_across(psp_inputBuff *buff, void *destination, uint32_t *wanted, uint32_t timeout) {
  auto *to = static_cast<unsigned char *>(destination);
  while (*wanted != 0) {
    if (buff->unread == 0) {
      const psp_status status = refill(buff, timeout);
      if (status != PSP_OKAY) return status;
    }
    const uint32_t count = std::min(static_cast<uint32_t>(-buff->unread), *wanted);
    if (to != nullptr && count != 0) {
      std::memcpy(to, buff->end + buff->unread, count);
      to += count;
    }
    buff->unread += static_cast<ptrdiff_t>(count);
    *wanted -= count;
  }
  return PSP_OKAY;
}

// Takes the number by value: in the usual way it then never has an address and stays in a register.
[[gnu::noinline]] psp_status take_all_across(psp_inputBuff *buff, void *destination,
                                             uint32_t wanted) {
  return take_across(buff, destination, &wanted, 0);
}

inline psp_status take(psp_inputBuff *buff, void *destination, uint32_t wanted) {
  const ptrdiff_t unread = buff->unread;
  if (destination == nullptr || static_cast<size_t>(-unread) < wanted) [[unlikely]] {
    return take_all_across(buff, destination, wanted);
  }
  buff->unread = unread + static_cast<ptrdiff_t>(wanted);
  copy(destination, buff->end + unread, wanted);
  return PSP_OKAY;
}

// A value that the buffer does not hold whole, or that nobody wants.
template <class Bits>
[[gnu::noinline]] psp_status get_across(psp_inputBuff *buff, void *value, uint32_t timeout) {
  uint32_t wanted = sizeof(Bits);
  const psp_status status = take_across(buff, value, &wanted, timeout);
  if (status != PSP_OKAY || value == nullptr) return status;
  Bits bits;
  std::memcpy(&bits, value, sizeof bits);
  bits = in_order(bits, buff->swap);
  std::memcpy(value, &bits, sizeof bits);
  return PSP_OKAY;
}

template <class Bits>
inline psp_status get(psp_inputBuff *buff, void *value, uint32_t timeout = 0) {
  if (buff == nullptr) [[unlikely]]
    return PSP_ERR_INVARG;
  const ptrdiff_t rest = buff->unread + ptrdiff_t{sizeof(Bits)};
  if (value == nullptr || rest > 0) [[unlikely]] {
    return get_across<Bits>(buff, value, timeout);
  }
  buff->unread = rest;
  Bits bits;
  std::memcpy(&bits, buff->end + rest - sizeof bits, sizeof bits);
  bits = in_order(bits, buff->swap);
  std::memcpy(value, &bits, sizeof bits);
  return PSP_OKAY;
}

// ---- Strings of the input -----------------------------------------------------------------------

void drop_string(psp_inputBuff *buff) {
  if (buff->string == nullptr) return;
  psp_freeMem(buff->string, nullptr);
  buff->string = nullptr;
}

// Gives the string on its way this many bytes; without memory, drops it. An exported call of its
// own: the jump, if the tag is armed, leaves from here.
bool resize_string(psp_inputBuff *buff, size_t size) {
  return core::exported_call([&] {
    void *string = buff->string == nullptr
                       ? psp_getMem(size, nullptr, PSP_MEM_ALLOC, nullptr, kSource, __LINE__)
                       : psp_extendMem(buff->string, size, nullptr, 0, 0, kSource, __LINE__);
    if (string == nullptr) {
      drop_string(buff);
      return false;
    }
    buff->string = static_cast<char *>(string);
    return true;
  });
}

// Takes a string of this length, which is not kNullString: the sum cannot wrap.
psp_status take_string(psp_inputBuff *buff, uint32_t length, char **result) {
  const size_t size = size_t{length} + 1;
  size_t room = 0;
  uint32_t taken = 0;
  do {
    if (room == 0) {
      room = std::min(size, kTrustedBytes);
    } else {
      room = room < size / 2 ? room * 2 : size;
    }
    if (!resize_string(buff, room)) return PSP_ERR_NOMEMORY;
    const uint32_t part = static_cast<uint32_t>(std::min(room, size - 1)) - taken;
    const psp_status status = take(buff, buff->string + taken, part);
    if (status != PSP_OKAY) {
      drop_string(buff);
      return status;
    }
    taken += part;
  } while (room < size);
  buff->string[length] = '\0';
  *result = buff->string;
  buff->string = nullptr;
  return PSP_OKAY;
}

// Takes a string that the buffer holds whole. No transport is called, so the string never waits in
// the record, and a jump for want of memory leaves nothing behind.
inline psp_status take_string_within(psp_inputBuff *buff, uint32_t length, char **result) {
  void *memory = psp_getMem(size_t{length} + 1, nullptr, PSP_MEM_ALLOC, nullptr, kSource, __LINE__);
  if (memory == nullptr) return PSP_ERR_NOMEMORY;
  auto *string = static_cast<char *>(memory);
  copy(string, buff->end + buff->unread, length);
  string[length] = '\0';
  buff->unread += static_cast<ptrdiff_t>(length);
  *result = string;
  return PSP_OKAY;
}

psp_status get_string(psp_inputBuff *buff, char **value) {
  drop_string(buff);
  if (value != nullptr) *value = nullptr;
  uint32_t length = 0;
  const psp_status status = get<uint32_t>(buff, &length);
  if (status != PSP_OKAY || length == kNullString) return status;
  if (value == nullptr) return take(buff, nullptr, length);
  if (length <= static_cast<size_t>(-buff->unread)) return take_string_within(buff, length, value);
  return take_string(buff, length, value);
}

// The destination is a terminated string however the call returns, and empty if the transport jumps
// before its first byte. A jump out of a later read leaves what was copied without an end.
psp_status get_string_into(psp_inputBuff *buff, char *destination, uint32_t size) {
  destination[0] = '\0';
  uint32_t length = 0;
  psp_status status = get<uint32_t>(buff, &length);
  if (status != PSP_OKAY || length == kNullString) return status;
  const uint32_t fitting = std::min(length, size - 1);
  uint32_t missing = fitting;
  status = take_across(buff, destination, &missing, 0);
  destination[fitting - missing] = '\0';
  if (status != PSP_OKAY || fitting == length) return status;
  status = take(buff, nullptr, length - fitting);
  return status != PSP_OKAY ? status : PSP_ERR_TRUNCATED;
}

// ---- Output -------------------------------------------------------------------------------------

void empty(psp_outputBuff *buff) { buff->free = -ptrdiff_t{kCapacity}; }

// Writes what waits. A write that failed has sent nothing: the bytes go on waiting.
psp_status flush(psp_outputBuff *buff) {
  const auto waiting = static_cast<uint32_t>(ptrdiff_t{kCapacity} + buff->free);
  if (waiting == 0) return PSP_OKAY;
  const psp_status status = buff->write(buff->context, buff->bytes, waiting);
  if (status == PSP_OKAY) empty(buff);
  return status;
}

[[gnu::noinline]] psp_status put_across(psp_outputBuff *buff, const void *data, size_t count) {
  const auto *from = static_cast<const unsigned char *>(data);
  while (count != 0) {
    if (buff->free == 0) {
      const psp_status status = flush(buff);
      if (status != PSP_OKAY) return status;
    }
    const size_t part = std::min(static_cast<size_t>(-buff->free), count);
    std::memcpy(buff->end() + buff->free, from, part);
    buff->free += static_cast<ptrdiff_t>(part);
    from += part;
    count -= part;
  }
  return PSP_OKAY;
}

inline psp_status put(psp_outputBuff *buff, const void *data, size_t count) {
  const ptrdiff_t free = buff->free;
  if (static_cast<size_t>(-free) < count) [[unlikely]]
    return put_across(buff, data, count);
  buff->free = free + static_cast<ptrdiff_t>(count);
  copy(buff->end() + free, data, count);
  return PSP_OKAY;
}

// A value, ordered already, for which there is no room; by value as above.
template <class Bits>
[[gnu::noinline]] psp_status put_value_across(psp_outputBuff *buff, Bits bits) {
  return put_across(buff, &bits, sizeof bits);
}

template <class Bits>
inline psp_status put_value(psp_outputBuff *buff, Bits bits) {
  if (buff == nullptr) [[unlikely]]
    return PSP_ERR_INVARG;
  bits = in_order(bits, buff->swap);
  const ptrdiff_t rest = buff->free + ptrdiff_t{sizeof bits};
  if (rest > 0) [[unlikely]]
    return put_value_across(buff, bits);
  buff->free = rest;
  std::memcpy(buff->end() + rest - sizeof bits, &bits, sizeof bits);
  return PSP_OKAY;
}

psp_status put_string_with_length(psp_outputBuff *buff, const char *string) {
  if (string == nullptr) return put_value<uint32_t>(buff, kNullString);
  const size_t length = std::strlen(string);
  if (length >= kNullString) return PSP_ERR_INVARG;
  const psp_status status = put_value<uint32_t>(buff, static_cast<uint32_t>(length));
  return status != PSP_OKAY ? status : put(buff, string, length);
}

// ---- Life ---------------------------------------------------------------------------------------

psp_inputBuff *create_input() {
  return core::exported_call([] {
    return static_cast<psp_inputBuff *>(
        psp_getMem(sizeof(psp_inputBuff), nullptr, PSP_MEM_ALLOC, nullptr, kSource, __LINE__));
  });
}

psp_outputBuff *create_output() {
  return core::exported_call([] {
    return static_cast<psp_outputBuff *>(
        psp_getMem(sizeof(psp_outputBuff), nullptr, PSP_MEM_ALLOC, nullptr, kSource, __LINE__));
  });
}

}  // namespace

}  // namespace psp::buffers

using namespace psp;

// ---- Exported: input ----------------------------------------------------------------------------

psp_status psp_inputBuffCreate(psp_transportRead read, psp_transportReadTimed timed_read,
                               void *context, uint16_t swap, psp_inputBuff **buff) {
  if (read == nullptr || buff == nullptr) return PSP_ERR_INVARG;
  psp_inputBuff *created = buffers::create_input();
  if (created == nullptr) return PSP_ERR_NOMEMORY;
  created->read = read;
  created->timed_read = timed_read;
  created->context = context;
  created->swap = swap != 0;
  created->string = nullptr;
  psp_inputBuffReset(created);
  *buff = created;
  return PSP_OKAY;
}

void psp_inputBuffDestroy(psp_inputBuff *buff) {
  if (buff == nullptr) return;
  buffers::drop_string(buff);
  psp_freeMem(buff, nullptr);
}

psp_status psp_inputBuffGetChar(psp_inputBuff *buff, char *value) {
  return buffers::get<uint8_t>(buff, value);
}

psp_status psp_inputBuffGetInt16(psp_inputBuff *buff, int16_t *value) {
  return buffers::get<uint16_t>(buff, value);
}

psp_status psp_inputBuffGetInt32(psp_inputBuff *buff, int32_t *value) {
  return buffers::get<uint32_t>(buff, value);
}

psp_status psp_inputBuffGetInt32Timeout(psp_inputBuff *buff, int32_t *value, uint32_t timeout) {
  return buffers::get<uint32_t>(buff, value, timeout);
}

psp_status psp_inputBuffGetInt64(psp_inputBuff *buff, int64_t *value) {
  return buffers::get<uint64_t>(buff, value);
}

psp_status psp_inputBuffGetFloat32(psp_inputBuff *buff, float *value) {
  return buffers::get<uint32_t>(buff, value);
}

psp_status psp_inputBuffGetFloat64(psp_inputBuff *buff, double *value) {
  return buffers::get<uint64_t>(buff, value);
}

psp_status psp_inputBuffGetString(psp_inputBuff *buff, char **value) {
  if (buff == nullptr) return PSP_ERR_INVARG;
  return buffers::get_string(buff, value);
}

psp_status psp_inputBuffGetStringWithLength(psp_inputBuff *buff, char *destination, uint32_t size) {
  if (buff == nullptr) return PSP_ERR_INVARG;
  if (destination == nullptr) return buffers::get_string(buff, nullptr);
  if (size == 0) return PSP_ERR_INVARG;
  return buffers::get_string_into(buff, destination, size);
}

psp_status psp_inputBuffGetBytes(psp_inputBuff *buff, void *destination, uint32_t count) {
  if (buff == nullptr) [[unlikely]]
    return PSP_ERR_INVARG;
  return buffers::take(buff, destination, count);
}

void psp_inputBuffReset(psp_inputBuff *buff) {
  if (buff == nullptr) return;
  buff->end = buff->bytes;
  buff->unread = 0;
}

// ---- Exported: output ---------------------------------------------------------------------------

psp_status psp_outputBuffCreate(psp_transportWrite write, void *context, uint16_t swap,
                                psp_outputBuff **buff) {
  if (write == nullptr || buff == nullptr) return PSP_ERR_INVARG;
  psp_outputBuff *created = buffers::create_output();
  if (created == nullptr) return PSP_ERR_NOMEMORY;
  created->write = write;
  created->context = context;
  created->swap = swap != 0;
  buffers::empty(created);
  *buff = created;
  return PSP_OKAY;
}

void psp_outputBuffDestroy(psp_outputBuff *buff) { psp_freeMem(buff, nullptr); }

psp_status psp_outputBuffPutChar(psp_outputBuff *buff, char value) {
  return buffers::put_value(buff, static_cast<uint8_t>(value));
}

psp_status psp_outputBuffPutInt16(psp_outputBuff *buff, int16_t value) {
  return buffers::put_value(buff, static_cast<uint16_t>(value));
}

psp_status psp_outputBuffPutInt32(psp_outputBuff *buff, int32_t value) {
  return buffers::put_value(buff, static_cast<uint32_t>(value));
}

psp_status psp_outputBuffPutInt64(psp_outputBuff *buff, int64_t value) {
  return buffers::put_value(buff, static_cast<uint64_t>(value));
}

psp_status psp_outputBuffPutFloat32(psp_outputBuff *buff, float value) {
  return buffers::put_value(buff, std::bit_cast<uint32_t>(value));
}

psp_status psp_outputBuffPutFloat64(psp_outputBuff *buff, double value) {
  return buffers::put_value(buff, std::bit_cast<uint64_t>(value));
}

psp_status psp_outputBuffPutString(psp_outputBuff *buff, const char *string) {
  if (buff == nullptr || string == nullptr) return PSP_ERR_INVARG;
  return buffers::put(buff, string, std::strlen(string));
}

psp_status psp_outputBuffPutStringWithLength(psp_outputBuff *buff, const char *string) {
  if (buff == nullptr) return PSP_ERR_INVARG;
  return buffers::put_string_with_length(buff, string);
}

psp_status psp_outputBuffPutBytes(psp_outputBuff *buff, const void *data, uint32_t count) {
  if (buff == nullptr) [[unlikely]]
    return PSP_ERR_INVARG;
  if (count == 0) return PSP_OKAY;
  if (data == nullptr) return PSP_ERR_INVARG;
  return buffers::put(buff, data, count);
}

psp_status psp_outputBuffFlush(psp_outputBuff *buff) {
  if (buff == nullptr) return PSP_ERR_INVARG;
  return buffers::flush(buff);
}

psp_status psp_outputBuffSendDirect(psp_outputBuff *buff, const void *data, uint32_t count) {
  if (buff == nullptr) return PSP_ERR_INVARG;
  if (count == 0) return PSP_OKAY;
  if (data == nullptr) return PSP_ERR_INVARG;
  const psp_status status = buffers::flush(buff);
  if (status != PSP_OKAY) return status;
  return buff->write(buff->context, data, count);
}
