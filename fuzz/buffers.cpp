// Typed buffers: values that are put come out as the model's bytes, in blocks, and any bytes that
// come in, forged lengths among them, are taken as the model takes them.
//
// An input is a swap flag, the most that a read delivers, how often the bytes that come in are
// repeated, a number of calls, four bytes for each call, and the bytes. Calls that need more bytes
// take of those.
#include <algorithm>
#include <bit>

#include "fuzz.h"
#include "psp.h"

namespace {

constexpr psp_status kEnd = 77;
constexpr uint32_t kBlock = 5000;

struct Wire {
  std::string in, out;
  size_t delivered = 0;
  uint32_t most = 0;       // that a read delivers; 0: every second read delivers nothing
  bool idle = false;       // the last read delivered nothing
  bool sends_now = false;  // a flush or a direct block is under way: any count may come
};

int32_t deliver(void *context, void *buffer, uint32_t capacity, uint32_t *filled) {
  auto *wire = static_cast<Wire *>(context);
  FUZZ_EXPECT(capacity == kBlock);
  *filled = capacity;
  if (wire->delivered == wire->in.size()) return kEnd;
  wire->idle = wire->most == 0 && !wire->idle;
  const uint32_t most = wire->idle ? 0 : wire->most == 0 ? capacity : wire->most;
  *filled = static_cast<uint32_t>(
      wire->in.copy(static_cast<char *>(buffer), std::min(most, capacity), wire->delivered));
  wire->delivered += *filled;
  return PSP_OKAY;
}

int32_t send(void *context, const void *data, uint32_t count) {
  auto *wire = static_cast<Wire *>(context);
  FUZZ_EXPECT(wire->sends_now || count == kBlock);
  wire->out.append(static_cast<const char *>(data), count);
  return PSP_OKAY;
}

class Script {
 public:
  Script(std::string bytes, uint32_t most, bool swap) : swap_(swap) {
    wire_.in = left_ = std::move(bytes);
    wire_.most = most;
    FUZZ_EXPECT(psp_inputBuffCreate(deliver, nullptr, &wire_, swap, &in_) == PSP_OKAY);
    FUZZ_EXPECT(psp_outputBuffCreate(send, &wire_, swap, &out_) == PSP_OKAY);
  }
  ~Script() {
    psp_inputBuffDestroy(in_);
    psp_outputBuffDestroy(out_);
  }
  Script(const Script &) = delete;
  Script &operator=(const Script &) = delete;

  void get(fuzz::Input *input) {
    switch (input->below(7)) {
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
      default:
        return get_bytes(input->below(20000));
    }
  }

  void put(fuzz::Input *input) {
    switch (input->below(6)) {
      case 0:
        return put_value(psp_outputBuffPutInt16, input->number<int16_t>());
      case 1:
        return put_value(psp_outputBuffPutInt64, input->number<int64_t>());
      case 2:
        return put_value(psp_outputBuffPutFloat32, std::bit_cast<float>(input->number<uint32_t>()));
      case 3: {
        const std::string text = input->text(100);
        FUZZ_EXPECT(psp_outputBuffPutStringWithLength(out_, text.c_str()) == PSP_OKAY);
        put_ += ordered(static_cast<uint32_t>(text.size())) + text;
        return;
      }
      case 4: {
        const std::string text(input->below(12000), 'p');
        FUZZ_EXPECT(psp_outputBuffPutString(out_, text.c_str()) == PSP_OKAY);
        put_ += text;
        return;
      }
      default:
        return send_now(std::string(input->below(12000), 'd'));
    }
  }

  // Sends what waits and this, and compares all that has been sent.
  void send_now(const std::string &direct) {
    wire_.sends_now = true;
    FUZZ_EXPECT(psp_outputBuffSendDirect(out_, direct.data(),
                                         static_cast<uint32_t>(direct.size())) == PSP_OKAY);
    FUZZ_EXPECT(psp_outputBuffFlush(out_) == PSP_OKAY);
    wire_.sends_now = false;
    put_ += direct;
    FUZZ_EXPECT(wire_.out == put_);
  }

 private:
  template <class Value>
  std::string ordered(Value value) const {
    std::string bytes(reinterpret_cast<const char *>(&value), sizeof value);
    if (swap_) std::reverse(bytes.begin(), bytes.end());
    return bytes;
  }

  // The model: the next bytes, fewer where the wire ends, which is told then.
  std::string take(size_t count, psp_status *status) {
    const std::string taken = left_.substr(at_, count);
    at_ += taken.size();
    *status = taken.size() == count ? PSP_OKAY : kEnd;
    return taken;
  }
  uint32_t take_length(psp_status *status) {
    std::string bytes = take(4, status);
    if (swap_) std::reverse(bytes.begin(), bytes.end());
    uint32_t length = 0;
    if (*status == PSP_OKAY) memcpy(&length, bytes.data(), sizeof length);
    return length;
  }

  template <class Value>
  void get_value(psp_status (*function)(psp_inputBuff *, Value *)) {
    Value value = {};
    psp_status expected = PSP_OKAY;
    const std::string bytes = take(sizeof value, &expected);
    FUZZ_EXPECT(function(in_, &value) == expected);
    if (expected == PSP_OKAY) FUZZ_EXPECT(ordered(value) == bytes);
  }

  void get_string() {
    psp_status expected = PSP_OKAY;
    const uint32_t length = take_length(&expected);
    const bool null = expected != PSP_OKAY || length == UINT32_MAX;
    const std::string text = null ? "" : take(length, &expected);
    char *string = nullptr;
    FUZZ_EXPECT(psp_inputBuffGetString(in_, &string) == expected);
    FUZZ_EXPECT((string != nullptr) == (!null && expected == PSP_OKAY));
    if (string != nullptr) FUZZ_EXPECT(memcmp(string, text.c_str(), text.size() + 1) == 0);
    psp_freeMem(string, nullptr);
  }

  void get_string_into(uint32_t size) {
    psp_status expected = PSP_OKAY;
    const uint32_t length = take_length(&expected);
    const bool null = expected != PSP_OKAY || length == UINT32_MAX;
    const std::string text = null ? "" : take(length, &expected).substr(0, size - 1);
    if (!null && expected == PSP_OKAY && length >= size) expected = PSP_ERR_TRUNCATED;
    std::string destination(size, '#');
    FUZZ_EXPECT(psp_inputBuffGetStringWithLength(in_, destination.data(), size) == expected);
    FUZZ_EXPECT(memcmp(destination.data(), text.c_str(), text.size() + 1) == 0);
  }

  void get_bytes(uint32_t count) {
    psp_status expected = PSP_OKAY;
    const std::string bytes = take(count, &expected);
    std::string destination(count, '#');
    FUZZ_EXPECT(psp_inputBuffGetBytes(in_, destination.data(), count) == expected);
    FUZZ_EXPECT(destination.compare(0, bytes.size(), bytes) == 0);
  }

  template <class Value>
  void put_value(psp_status (*function)(psp_outputBuff *, Value), Value value) {
    FUZZ_EXPECT(function(out_, value) == PSP_OKAY);
    put_ += ordered(value);
  }

  bool swap_;
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
  // The calls stand before the bytes that come in, as one sees them in an editor.
  Input script = input;
  for (size_t count = 0; count < calls * 4; ++count) input.byte();
  std::string bytes;
  const std::string once = input.rest();
  for (size_t count = 0; count < repeated; ++count) bytes += once;

  Script made(bytes, most, swap);
  for (size_t count = 0; count < calls; ++count) {
    if (script.below(2) == 0) {
      made.get(&script);
    } else {
      made.put(&script);
    }
  }
  made.send_now("");
  made.send_now("end");
}
