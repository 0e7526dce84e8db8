// Typed buffers: values that are put come out as the model's bytes, in blocks, and any bytes that
// come in, forged lengths among them, are taken as the model takes them. A transport that fails has
// moved nothing: its status comes back at once, and the next call goes on where it failed.
//
// An input is a swap flag, the most that a read delivers, how often the bytes that come in are
// repeated, a number of calls, the faults of the transport, four bytes for each call, and the
// bytes. Calls that need more bytes take of those.
#include <algorithm>
#include <bit>

#include "fuzz.h"
#include "psp.h"

namespace {

constexpr psp_status kEnd = 77, kReadFailed = 78, kWriteFailed = 79;
constexpr uint32_t kBlock = 5000;
constexpr uint32_t kTimeout = 1234;

// Each n-th read fails, each n-th write does; none where n is 0.
struct Faults {
  uint32_t read = 0, write = 0;
};

struct Wire {
  std::string in, out;
  size_t delivered = 0;
  uint32_t most = 0;             // that a read delivers; 0: every second read delivers nothing
  bool idle = false;             // the last read delivered nothing
  bool tells_more = false;       // a full block is told as more than there is room for
  bool sends_now = false;        // a flush or a direct block is under way: any count may come
  bool expects_timed = false;    // what calls must come by the timed function
  Faults faults, calls;          // calls: made so far
  psp_status status = PSP_OKAY;  // of the failure, of which there is at most one in a call

  bool fails(uint32_t every, uint32_t *count, psp_status with) {
    FUZZ_EXPECT(status == PSP_OKAY);
    if (every == 0 || ++*count % every != 0) return false;
    status = with;
    return true;
  }
};

int32_t deliver(void *context, void *buffer, uint32_t capacity, uint32_t *filled) {
  auto *wire = static_cast<Wire *>(context);
  FUZZ_EXPECT(capacity == kBlock && !wire->expects_timed);
  *filled = capacity;
  if (wire->fails(wire->faults.read, &wire->calls.read, kReadFailed)) return wire->status;
  if (wire->delivered == wire->in.size()) return wire->status = kEnd;
  wire->idle = wire->most == 0 && !wire->idle;
  const uint32_t most = wire->idle ? 0 : wire->most == 0 ? capacity : wire->most;
  *filled = static_cast<uint32_t>(
      wire->in.copy(static_cast<char *>(buffer), std::min(most, capacity), wire->delivered));
  wire->delivered += *filled;
  if (wire->tells_more && *filled == capacity) *filled = UINT32_MAX;
  return PSP_OKAY;
}

int32_t deliver_in_time(void *context, void *buffer, uint32_t capacity, uint32_t *filled,
                        uint32_t timeout) {
  auto *wire = static_cast<Wire *>(context);
  FUZZ_EXPECT(timeout == kTimeout && wire->expects_timed);
  wire->expects_timed = false;
  const int32_t status = deliver(context, buffer, capacity, filled);
  wire->expects_timed = true;
  return status;
}

int32_t send(void *context, const void *data, uint32_t count) {
  auto *wire = static_cast<Wire *>(context);
  FUZZ_EXPECT(wire->sends_now || count == kBlock);
  if (wire->fails(wire->faults.write, &wire->calls.write, kWriteFailed)) return wire->status;
  wire->out.append(static_cast<const char *>(data), count);
  return PSP_OKAY;
}

class Script {
 public:
  Script(std::string bytes, uint32_t most, bool swap, uint32_t faults) : swap_(swap) {
    wire_.in = left_ = std::move(bytes);
    wire_.most = most;
    wire_.faults = {faults % 8, faults / 8 % 4};
    wire_.tells_more = faults / 32 % 2 != 0;
    is_timed_ = faults / 64 % 2 != 0;
    FUZZ_EXPECT(psp_inputBuffCreate(deliver, is_timed_ ? deliver_in_time : nullptr, &wire_, swap,
                                    &in_) == PSP_OKAY);
    FUZZ_EXPECT(psp_outputBuffCreate(send, &wire_, swap, &out_) == PSP_OKAY);
  }
  ~Script() {
    psp_inputBuffDestroy(in_);
    psp_outputBuffDestroy(out_);
  }
  Script(const Script &) = delete;
  Script &operator=(const Script &) = delete;

  void get(fuzz::Input *input) {
    switch (input->below(12)) {
      case 0:
        return get_value(psp_inputBuffGetChar);
      case 1:
        return get_value(psp_inputBuffGetInt16);
      case 2:
        return get_value(psp_inputBuffGetInt32);
      case 3:
        return get_value(psp_inputBuffGetFloat64);
      case 4:
        return get_string();
      case 5:
        return get_string_into(1 + input->below(300));
      case 6:
        return get_bytes(input->below(20000), false);
      case 7:
        return get_value(psp_inputBuffGetInt64);
      case 8:
        return get_value(psp_inputBuffGetFloat32);
      case 9:
        wire_.expects_timed = is_timed_;
        get_value(get_in_time);
        wire_.expects_timed = false;
        return;
      case 10:
        return get_bytes(input->below(20000), true);
      default:
        psp_inputBuffReset(in_);
        at_ = wire_.delivered;
    }
  }

  void put(fuzz::Input *input) {
    switch (input->below(12)) {
      case 0:
        return put_value(psp_outputBuffPutInt16, input->number<int16_t>());
      case 1:
        return put_value(psp_outputBuffPutInt64, input->number<int64_t>());
      case 2:
        return put_value(psp_outputBuffPutFloat32, std::bit_cast<float>(input->number<uint32_t>()));
      case 3: {
        const std::string text = input->text(100);
        return expect_put(psp_outputBuffPutStringWithLength(out_, text.c_str()),
                          ordered(static_cast<uint32_t>(text.size())) + text);
      }
      case 4: {
        const std::string text(input->below(12000), 'p');
        return expect_put(psp_outputBuffPutString(out_, text.c_str()), text);
      }
      case 5:
        return send_now(std::string(input->below(12000), 'd'));
      case 6:
        return put_value(psp_outputBuffPutChar, input->number<char>());
      case 7:
        return put_value(psp_outputBuffPutInt32, input->number<int32_t>());
      case 8:
        return put_value(psp_outputBuffPutFloat64,
                         std::bit_cast<double>(input->number<uint64_t>()));
      case 9: {
        const std::string bytes(input->below(12000), 'b');
        const auto count = static_cast<uint32_t>(bytes.size());
        return expect_put(psp_outputBuffPutBytes(out_, bytes.data(), count), bytes);
      }
      case 10:
        return expect_put(psp_outputBuffPutStringWithLength(out_, nullptr), ordered(UINT32_MAX));
      default:
        return send_now("");
    }
  }

  // Sends what waits and this, and compares all that has been sent. The direct bytes of a send that
  // failed are the caller's still.
  void send_now(const std::string &direct) {
    wire_.sends_now = true;
    psp_status status =
        psp_outputBuffSendDirect(out_, direct.data(), static_cast<uint32_t>(direct.size()));
    expect_status(status, wire_.status);
    if (status == PSP_OKAY && !direct.empty()) {
      put_ += direct;
      FUZZ_EXPECT(wire_.out == put_);
    }
    status = psp_outputBuffFlush(out_);
    expect_status(status, wire_.status);
    if (status == PSP_OKAY) FUZZ_EXPECT(wire_.out == put_);
    wire_.sends_now = false;
  }

  // From here on the transport does not fail: all the bytes arrive, in their order.
  void finish() {
    wire_.faults = {};
    send_now("end");
    get_bytes(static_cast<uint32_t>(left_.size() - at_), false);
    get_bytes(1, false);
  }

 private:
  template <class Value>
  std::string ordered(Value value) const {
    std::string bytes(reinterpret_cast<const char *>(&value), sizeof value);
    if (swap_) std::reverse(bytes.begin(), bytes.end());
    return bytes;
  }

  void expect_status(psp_status status, psp_status expected) {
    FUZZ_EXPECT(status == expected);
    FUZZ_EXPECT(wire_.status == PSP_OKAY || wire_.status == expected);
    wire_.status = PSP_OKAY;
  }

  // The model, after a call: the bytes that it took, fewer where the transport failed meanwhile,
  // and then the status is the transport's.
  std::string take(size_t count, psp_status *status) {
    const size_t end = wire_.status == PSP_OKAY ? left_.size() : wire_.delivered;
    const std::string taken = left_.substr(at_, std::min(count, end - at_));
    at_ += taken.size();
    *status = taken.size() == count ? PSP_OKAY : wire_.status;
    return taken;
  }
  uint32_t take_length(psp_status *status) {
    std::string bytes = take(4, status);
    if (swap_) std::reverse(bytes.begin(), bytes.end());
    uint32_t length = 0;
    if (bytes.size() == 4) memcpy(&length, bytes.data(), sizeof length);
    return length;
  }

  static psp_status get_in_time(psp_inputBuff *buff, int32_t *value) {
    return psp_inputBuffGetInt32Timeout(buff, value, kTimeout);
  }

  template <class Value>
  void get_value(psp_status (*function)(psp_inputBuff *, Value *)) {
    Value value = {};
    const psp_status status = function(in_, &value);
    psp_status expected = PSP_OKAY;
    const std::string bytes = take(sizeof value, &expected);
    expect_status(status, expected);
    if (status == PSP_OKAY) FUZZ_EXPECT(ordered(value) == bytes);
  }

  void get_string() {
    char *string = nullptr;
    const psp_status status = psp_inputBuffGetString(in_, &string);
    psp_status expected = PSP_OKAY;
    const uint32_t length = take_length(&expected);
    const bool null = expected != PSP_OKAY || length == UINT32_MAX;
    const std::string text = null ? "" : take(length, &expected);
    expect_status(status, expected);
    FUZZ_EXPECT((string != nullptr) == (!null && status == PSP_OKAY));
    if (string != nullptr) FUZZ_EXPECT(memcmp(string, text.c_str(), text.size() + 1) == 0);
    psp_freeMem(string, nullptr);
  }

  void get_string_into(uint32_t size) {
    std::string destination(size, '#');
    const psp_status status = psp_inputBuffGetStringWithLength(in_, destination.data(), size);
    psp_status expected = PSP_OKAY;
    const uint32_t length = take_length(&expected);
    const bool null = expected != PSP_OKAY || length == UINT32_MAX;
    const std::string text = null ? "" : take(length, &expected).substr(0, size - 1);
    if (!null && expected == PSP_OKAY && length >= size) expected = PSP_ERR_TRUNCATED;
    expect_status(status, expected);
    FUZZ_EXPECT(memcmp(destination.data(), text.c_str(), text.size() + 1) == 0);
  }

  void get_bytes(uint32_t count, bool drops) {
    std::string destination(count, '#');
    const psp_status status =
        psp_inputBuffGetBytes(in_, drops ? nullptr : destination.data(), count);
    psp_status expected = PSP_OKAY;
    const std::string bytes = take(count, &expected);
    expect_status(status, expected);
    if (!drops) FUZZ_EXPECT(destination == bytes + std::string(count - bytes.size(), '#'));
  }

  // A put that failed met a full block, and has filled no more than that.
  void expect_put(psp_status status, const std::string &bytes) {
    put_ += bytes;
    if (wire_.status != PSP_OKAY) {
      FUZZ_EXPECT(wire_.out.size() + kBlock < put_.size());
      put_.resize(wire_.out.size() + kBlock);
    }
    expect_status(status, wire_.status);
  }

  template <class Value>
  void put_value(psp_status (*function)(psp_outputBuff *, Value), Value value) {
    expect_put(function(out_, value), ordered(value));
  }

  bool swap_;
  bool is_timed_ = false;  // there is a timed read function
  Wire wire_;
  psp_inputBuff *in_ = nullptr;
  psp_outputBuff *out_ = nullptr;
  std::string left_;  // all that comes in
  size_t at_ = 0;     // of it, taken
  std::string put_;
};

}  // namespace

void fuzz::run(Input input) {
  const bool swap = input.below(2) != 0;
  const uint32_t most = input.below(200);
  const size_t repeated = 1 + input.below(200), calls = input.below(64);
  const uint32_t faults = input.below(128);
  // The calls stand before the bytes that come in, as one sees them in an editor.
  Input script = input;
  for (size_t count = 0; count < calls * 4; ++count) input.byte();
  std::string bytes;
  const std::string once = input.rest();
  for (size_t count = 0; count < repeated; ++count) bytes += once;

  Script made(bytes, most, swap, faults);
  for (size_t count = 0; count < calls; ++count) {
    if (script.below(2) == 0) {
      made.get(&script);
    } else {
      made.put(&script);
    }
  }
  made.finish();
}
