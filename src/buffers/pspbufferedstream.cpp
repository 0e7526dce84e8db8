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

// Bytes from position to filled are still to be handed out; position never passes filled.
struct psp_inputBuff {
  psp_transportRead read;
  psp_transportReadTimed timed_read;  // null: read serves
  void *context;
  uint64_t swap_mask;  // all bits set: values arrive in reversed order
  char *string;        // a string on its way; left behind only by a transport that jumped
  uint32_t filled;
  uint32_t position;
  unsigned char bytes[kCapacity];
};

// The first used bytes wait for the transport. A full buffer waits too, until more bytes come.
struct psp_outputBuff {
  psp_transportWrite write;
  void *context;
  uint64_t swap_mask;  // as above
  uint32_t used;
  unsigned char bytes[kCapacity];
};

namespace psp::buffers {

namespace {

constexpr uint32_t kNullString = UINT32_MAX;  // the length that stands for a null string

// A string's length comes from the wire and may be forged. A longer string than this starts with
// this many bytes, terminator included, and its memory doubles only as its bytes really arrive.
constexpr size_t kTrustedBytes = (size_t{1} << 20) + 1;

uint64_t mask_of(uint16_t swap) { return swap != 0 ? UINT64_MAX : 0; }

uint16_t reversed(uint16_t bits) { return __builtin_bswap16(bits); }
uint32_t reversed(uint32_t bits) { return __builtin_bswap32(bits); }
uint64_t reversed(uint64_t bits) { return __builtin_bswap64(bits); }

// The value's bits, reversed if the mask says so; without a branch. Floats come through here as
// integers: a reversed float may look like a signalling NaN, which a floating-point register would
// change.
template <class Bits>
Bits in_order(Bits bits, uint64_t swap_mask) {
  return static_cast<Bits>(bits ^ ((bits ^ reversed(bits)) & static_cast<Bits>(swap_mask)));
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
  buff->filled = std::min(filled, kCapacity);
  buff->position = 0;
  return PSP_OKAY;
}

// Takes *wanted bytes to the destination; null skips them. Afterwards *wanted tells how many are
// missing: none exactly if the result is PSP_OKAY.
psp_status take_across(psp_inputBuff *buff, void *destination, uint32_t *wanted, uint32_t timeout) {
  auto *to = static_cast<unsigned char *>(destination);
  while (*wanted != 0) {
    if (buff->position == buff->filled) {
      const psp_status status = refill(buff, timeout);
      if (status != PSP_OKAY) return status;
    }
    const uint32_t count = std::min(buff->filled - buff->position, *wanted);
    if (to != nullptr && count != 0) {
      std::memcpy(to, buff->bytes + buff->position, count);
      to += count;
    }
    buff->position += count;
    *wanted -= count;
  }
  return PSP_OKAY;
}

inline psp_status take(psp_inputBuff *buff, void *destination, uint32_t wanted) {
  if (destination == nullptr || buff->filled - buff->position < wanted) [[unlikely]] {
    return take_across(buff, destination, &wanted, 0);
  }
  const uint32_t position = buff->position;
  buff->position = position + wanted;
  std::memcpy(destination, buff->bytes + position, wanted);
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
  bits = in_order(bits, buff->swap_mask);
  std::memcpy(value, &bits, sizeof bits);
  return PSP_OKAY;
}

// Here and below a position moves on before bytes are stored, which for all the compiler knows may
// be the position: it need not be loaded again.
template <class Bits>
inline psp_status get(psp_inputBuff *buff, void *value, uint32_t timeout = 0) {
  if (buff == nullptr) [[unlikely]]
    return PSP_ERR_INVARG;
  const uint32_t position = buff->position;
  if (value == nullptr || buff->filled - position < sizeof(Bits)) [[unlikely]] {
    return get_across<Bits>(buff, value, timeout);
  }
  buff->position = position + uint32_t{sizeof(Bits)};
  Bits bits;
  std::memcpy(&bits, buff->bytes + position, sizeof bits);
  bits = in_order(bits, buff->swap_mask);
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

psp_status get_string(psp_inputBuff *buff, char **value) {
  drop_string(buff);
  if (value != nullptr) *value = nullptr;
  uint32_t length = 0;
  const psp_status status = get<uint32_t>(buff, &length);
  if (status != PSP_OKAY || length == kNullString) return status;
  return value != nullptr ? take_string(buff, length, value) : take(buff, nullptr, length);
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

// Writes what waits. A write that failed has sent nothing: the bytes go on waiting.
psp_status flush(psp_outputBuff *buff) {
  if (buff->used == 0) return PSP_OKAY;
  const psp_status status = buff->write(buff->context, buff->bytes, buff->used);
  if (status == PSP_OKAY) buff->used = 0;
  return status;
}

[[gnu::noinline]] psp_status put_across(psp_outputBuff *buff, const void *data, size_t count) {
  const auto *from = static_cast<const unsigned char *>(data);
  while (count != 0) {
    if (buff->used == kCapacity) {
      const psp_status status = flush(buff);
      if (status != PSP_OKAY) return status;
    }
    const size_t part = std::min<size_t>(kCapacity - buff->used, count);
    std::memcpy(buff->bytes + buff->used, from, part);
    buff->used += static_cast<uint32_t>(part);
    from += part;
    count -= part;
  }
  return PSP_OKAY;
}

inline psp_status put(psp_outputBuff *buff, const void *data, size_t count) {
  const uint32_t used = buff->used;
  if (kCapacity - used < count) [[unlikely]]
    return put_across(buff, data, count);
  buff->used = used + static_cast<uint32_t>(count);
  std::memcpy(buff->bytes + used, data, count);
  return PSP_OKAY;
}

// A value, ordered already, for which there is no room. Takes it by value: in the usual way it then
// never has an address and stays in a register.
template <class Bits>
[[gnu::noinline]] psp_status put_value_across(psp_outputBuff *buff, Bits bits) {
  return put_across(buff, &bits, sizeof bits);
}

template <class Bits>
inline psp_status put_value(psp_outputBuff *buff, Bits bits) {
  if (buff == nullptr) [[unlikely]]
    return PSP_ERR_INVARG;
  bits = in_order(bits, buff->swap_mask);
  const uint32_t used = buff->used;
  if (kCapacity - used < sizeof bits) [[unlikely]]
    return put_value_across(buff, bits);
  buff->used = used + uint32_t{sizeof bits};
  std::memcpy(buff->bytes + used, &bits, sizeof bits);
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
  created->swap_mask = buffers::mask_of(swap);
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
  if (buff == nullptr) [[unlikely]]
    return PSP_ERR_INVARG;
  return buffers::take(buff, value, 1);
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
  buff->filled = 0;
  buff->position = 0;
}

// ---- Exported: output ---------------------------------------------------------------------------

psp_status psp_outputBuffCreate(psp_transportWrite write, void *context, uint16_t swap,
                                psp_outputBuff **buff) {
  if (write == nullptr || buff == nullptr) return PSP_ERR_INVARG;
  psp_outputBuff *created = buffers::create_output();
  if (created == nullptr) return PSP_ERR_NOMEMORY;
  created->write = write;
  created->context = context;
  created->swap_mask = buffers::mask_of(swap);
  created->used = 0;
  *buff = created;
  return PSP_OKAY;
}

void psp_outputBuffDestroy(psp_outputBuff *buff) { psp_freeMem(buff, nullptr); }

psp_status psp_outputBuffPutChar(psp_outputBuff *buff, char value) {
  if (buff == nullptr) [[unlikely]]
    return PSP_ERR_INVARG;
  return buffers::put(buff, &value, 1);
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
