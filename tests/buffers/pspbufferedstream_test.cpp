// Typed buffers: the exact bytes on the wire and their way back, over transports that deliver
// byte by byte, deliver nothing, fail at any call and lie.
#include <gtest/gtest.h>
#include <malloc.h>

#include <algorithm>
#include <bit>
#include <cstring>
#include <string>
#include <utility>
#include <vector>

#include "psp.h"
#include "support/fixtures.h"

namespace {

constexpr psp_status kBroken = 77;  // the transport's own failure

// Both ends of a transport. Writes append to bytes, reads deliver from there.
struct Wire {
  std::string bytes = {};
  size_t at = 0;             // of the next byte to deliver
  uint32_t piece = 5000;     // the most that one read delivers
  bool idles = false;        // every second read delivers nothing
  int failing = 0;           // the number of the call that fails
  std::vector<int> calls{};  // bytes that each call moved
  uint32_t timeout = 0;      // of the last timed read
};

bool fails(Wire *wire) {
  wire->calls.push_back(0);
  return static_cast<int>(wire->calls.size()) == wire->failing;
}

int32_t read_wire(void *context, void *buffer, uint32_t capacity, uint32_t *filled) {
  auto *wire = static_cast<Wire *>(context);
  *filled = capacity;  // a failed read's count means nothing
  if (fails(wire) || wire->at == wire->bytes.size()) return kBroken;
  const bool idle = wire->idles && wire->calls.size() % 2 != 0;
  const size_t most = idle ? 0 : std::min(capacity, wire->piece);
  *filled = static_cast<uint32_t>(wire->bytes.copy(static_cast<char *>(buffer), most, wire->at));
  wire->at += *filled;
  wire->calls.back() = static_cast<int>(*filled);
  return PSP_OKAY;
}

int32_t read_timed(void *context, void *buffer, uint32_t capacity, uint32_t *filled,
                   uint32_t timeout) {
  static_cast<Wire *>(context)->timeout = timeout;
  return read_wire(context, buffer, capacity, filled);
}

int32_t write_wire(void *context, const void *data, uint32_t count) {
  auto *wire = static_cast<Wire *>(context);
  if (fails(wire)) return kBroken;
  wire->bytes.append(static_cast<const char *>(data), count);
  wire->calls.back() = static_cast<int>(count);
  return PSP_OKAY;
}

class TypedBuffers : public psp::tests::Started {
 protected:
  void TearDown() override {
    psp_inputBuffDestroy(in_);
    psp_outputBuffDestroy(out_);
    Started::TearDown();
  }
  // New buffers over the wire, which holds these bytes.
  void open(const std::string &bytes = "", uint16_t swap = 0) {
    psp_inputBuffDestroy(in_);
    psp_outputBuffDestroy(out_);
    wire_ = {.bytes = bytes};
    ASSERT_EQ(psp_inputBuffCreate(read_wire, read_timed, &wire_, swap, &in_), PSP_OKAY);
    ASSERT_EQ(psp_outputBuffCreate(write_wire, &wire_, swap, &out_), PSP_OKAY);
  }
  template <class Value>
  Value get(psp_status (*function)(psp_inputBuff *, Value *)) {
    Value value{};
    EXPECT_EQ(function(in_, &value), PSP_OKAY);
    return value;
  }
  std::string get_string() {
    char *string = get(psp_inputBuffGetString);
    const std::string copy = string != nullptr ? string : "(null)";
    psp_freeMem(string, nullptr);
    return copy;
  }

  Wire wire_;
  psp_inputBuff *in_ = nullptr;
  psp_outputBuff *out_ = nullptr;
};

// The bytes of a pattern in the machine's order, or reversed.
std::string bytes_of(uint64_t pattern, int count, bool reversed = false) {
  std::string bytes;
  for (int at = 0; at < count; ++at) bytes += static_cast<char>(pattern >> (8 * at));
  if (reversed != (std::endian::native == std::endian::big)) std::ranges::reverse(bytes);
  return bytes;
}

TEST_F(TypedBuffers, WireHasExactBytesInBothOrdersAndGivesThemBack) {
  constexpr uint32_t kSignallingNan = 0x7FA00001;
  constexpr uint64_t kSignallingNan64 = 0x7FF4000000000001;
  for (const uint16_t swap : {0, 0x8000}) {
    open("", swap);
    const auto value = [&](uint64_t pattern, int count) {
      return bytes_of(pattern, count, swap != 0);
    };
    const std::string expected = "c" + value(0x1122, 2) + value(0x11223344, 4) +
                                 value(0x1122334455667788, 8) + value(kSignallingNan, 4) +
                                 value(kSignallingNan64, 8) + value(3, 4) + "abc" + value(0, 4) +
                                 value(0xFFFFFFFF, 4) + "plain" + value(0xFFFF, 2);
    for (const psp_status status :
         {psp_outputBuffPutChar(out_, 'c'), psp_outputBuffPutInt16(out_, 0x1122),
          psp_outputBuffPutInt32(out_, 0x11223344),
          psp_outputBuffPutInt64(out_, 0x1122334455667788),
          psp_outputBuffPutFloat32(out_, std::bit_cast<float>(kSignallingNan)),
          psp_outputBuffPutFloat64(out_, std::bit_cast<double>(kSignallingNan64)),
          psp_outputBuffPutStringWithLength(out_, "abc"),
          psp_outputBuffPutStringWithLength(out_, ""),
          psp_outputBuffPutStringWithLength(out_, nullptr), psp_outputBuffPutString(out_, "plain"),
          psp_outputBuffPutInt16(out_, -1)}) {
      ASSERT_EQ(status, PSP_OKAY);
    }
    ASSERT_TRUE(wire_.calls.empty());
    ASSERT_EQ(psp_outputBuffFlush(out_), PSP_OKAY);
    ASSERT_EQ(wire_.bytes, expected);

    for (const uint32_t piece : {1u, 3u, 5000u}) {
      open(expected, swap);
      wire_.piece = piece;
      wire_.idles = piece == 3;
      uint32_t nan = 0;
      uint64_t nan64 = 0;
      EXPECT_EQ(get(psp_inputBuffGetChar), 'c');
      EXPECT_EQ(get(psp_inputBuffGetInt16), 0x1122);
      EXPECT_EQ(get(psp_inputBuffGetInt32), 0x11223344);
      EXPECT_EQ(get(psp_inputBuffGetInt64), 0x1122334455667788);
      EXPECT_EQ(psp_inputBuffGetFloat32(in_, reinterpret_cast<float *>(&nan)), PSP_OKAY);
      EXPECT_EQ(nan, kSignallingNan);
      EXPECT_EQ(psp_inputBuffGetFloat64(in_, reinterpret_cast<double *>(&nan64)), PSP_OKAY);
      EXPECT_EQ(nan64, kSignallingNan64);
      for (const char *string : {"abc", "", "(null)"}) EXPECT_EQ(get_string(), string);
      EXPECT_EQ(psp_inputBuffGetBytes(in_, nullptr, 5), PSP_OKAY);
      EXPECT_EQ(get(psp_inputBuffGetInt16), -1);
    }
  }
}

TEST_F(TypedBuffers, TransportIsCalledOnceABlock) {
  using Calls = std::vector<int>;
  const std::string data(12000, 'd');
  open();
  ASSERT_EQ(psp_outputBuffPutBytes(out_, data.data(), 5000), PSP_OKAY);
  EXPECT_EQ(wire_.calls, Calls());
  ASSERT_EQ(psp_outputBuffPutChar(out_, 'e'), PSP_OKAY);
  EXPECT_EQ(wire_.calls, Calls({5000}));
  ASSERT_EQ(psp_outputBuffPutString(out_, "fg"), PSP_OKAY);
  ASSERT_EQ(psp_outputBuffSendDirect(out_, data.data(), 0), PSP_OKAY);
  ASSERT_EQ(psp_outputBuffSendDirect(out_, data.data(), 10000), PSP_OKAY);
  ASSERT_EQ(psp_outputBuffFlush(out_), PSP_OKAY);
  EXPECT_EQ(wire_.calls, Calls({5000, 3, 10000}));
  ASSERT_EQ(psp_outputBuffPutBytes(out_, data.data(), 12000), PSP_OKAY);
  psp_outputBuffDestroy(std::exchange(out_, nullptr));
  EXPECT_EQ(wire_.bytes,
            data.substr(0, 5000) + "efg" + data.substr(0, 10000) + data.substr(0, 10000));

  open(data + "rest");
  std::string taken(12000, '\0');
  ASSERT_EQ(psp_inputBuffGetBytes(in_, taken.data(), 12000), PSP_OKAY);
  EXPECT_EQ(taken, data);
  EXPECT_EQ(wire_.calls, Calls({5000, 5000, 2004}));
  psp_inputBuffReset(in_);
  wire_.bytes += "new";
  EXPECT_EQ(get(psp_inputBuffGetChar), 'n');
}

TEST_F(TypedBuffers, PiecesOfEachSizeAreCopiedExactly) {
  for (uint32_t size = 0; size <= 140; ++size) {
    std::string data(size, '\0');
    std::ranges::generate(data, [next = 'a']() mutable { return next++; });
    open();
    ASSERT_EQ(psp_outputBuffPutBytes(out_, data.data(), size), PSP_OKAY);
    ASSERT_EQ(psp_outputBuffFlush(out_), PSP_OKAY);
    EXPECT_EQ(wire_.bytes, data);
    std::string taken(size + 1, '-');
    ASSERT_EQ(psp_inputBuffGetBytes(in_, taken.data(), size), PSP_OKAY);
    EXPECT_EQ(taken, data + '-');
  }
}

TEST_F(TypedBuffers, OnlyAPositiveTimeoutReachesTheTimedRead) {
  for (const psp_transportReadTimed timed : {read_timed, psp_transportReadTimed{nullptr}}) {
    for (const uint32_t timeout : {0u, 9u}) {
      open("1234");
      psp_inputBuffDestroy(in_);
      ASSERT_EQ(psp_inputBuffCreate(read_wire, timed, &wire_, 0, &in_), PSP_OKAY);
      EXPECT_EQ(psp_inputBuffGetInt32Timeout(in_, nullptr, timeout), PSP_OKAY);
      EXPECT_EQ(wire_.timeout, timed != nullptr ? timeout : 0);
    }
  }
}

TEST_F(TypedBuffers, StreamStaysAlignedBehindStringsThatAreDropped) {
  const std::string ten = bytes_of(10, 4) + "0123456789";
  open(ten + ten + "\xFF\xFF\xFF\xFF!");
  char text[12];
  EXPECT_EQ(psp_inputBuffGetStringWithLength(in_, nullptr, 5), PSP_OKAY);
  EXPECT_EQ(psp_inputBuffGetString(in_, nullptr), PSP_OKAY);
  EXPECT_EQ(psp_inputBuffGetStringWithLength(in_, text, 0), PSP_ERR_INVARG);
  EXPECT_EQ(psp_inputBuffGetStringWithLength(in_, text, 12), PSP_OKAY);
  EXPECT_STREQ(text, "");
  EXPECT_EQ(get(psp_inputBuffGetChar), '!');
}

TEST_F(TypedBuffers, FailureAtAnyCallIsToldAndLosesNoByte) {
  const std::string data = "0123456789abcdef";
  for (int failing = 1; failing <= 16; ++failing) {
    open(data);
    wire_.piece = 1;
    wire_.failing = failing;
    std::string taken(16, '-');
    const uint32_t before = static_cast<uint32_t>(failing) - 1;
    EXPECT_EQ(psp_inputBuffGetBytes(in_, taken.data(), 16), kBroken);
    EXPECT_EQ(taken, data.substr(0, before) + std::string(16 - before, '-'));
    EXPECT_EQ(psp_inputBuffGetBytes(in_, &taken[before], 16 - before), PSP_OKAY);
    EXPECT_EQ(taken, data);
  }
  for (int failing = 1; failing <= 4; ++failing) {
    open();
    wire_.failing = failing;
    std::string long_data;
    for (int at = 0; at < 12000; ++at) {
      long_data += static_cast<char>('a' + at % 26);
      while (psp_outputBuffPutChar(out_, long_data.back()) == kBroken) continue;
    }
    while (psp_outputBuffFlush(out_) == kBroken) continue;
    while (psp_outputBuffSendDirect(out_, "end", 3) == kBroken) continue;
    EXPECT_EQ(wire_.calls.size(), 5u);
    EXPECT_EQ(wire_.bytes, long_data + "end");
  }
  // Cut inside the string: a new one is null, a given space holds what came.
  const std::string three = bytes_of(9, 4) + "abc";
  open(three);
  char *string = wire_.bytes.data();
  EXPECT_EQ(psp_inputBuffGetString(in_, &string), kBroken);
  EXPECT_EQ(string, nullptr);
  open(three);
  char text[20];
  EXPECT_EQ(psp_inputBuffGetStringWithLength(in_, text, 20), kBroken);
  EXPECT_STREQ(text, "abc");
}

size_t memory_in_use() { return mallinfo2().hblkhd + mallinfo2().uordblks; }

struct Liar {
  int calls = 0;
  size_t most_memory = 0;
};

// Tells of more than there is room for.
int32_t read_boasting(void *context, void *buffer, uint32_t capacity, uint32_t *filled) {
  auto *liar = static_cast<Liar *>(context);
  liar->most_memory = std::max(liar->most_memory, memory_in_use());
  memset(buffer, 'b', capacity);
  *filled = UINT32_MAX;
  return ++liar->calls <= 700 ? PSP_OKAY : kBroken;
}

TEST_F(TypedBuffers, LiesOfPeerAndTransportCostLittle) {
  Liar liar;
  ASSERT_EQ(psp_inputBuffCreate(read_boasting, nullptr, &liar, 0, &in_), PSP_OKAY);
  std::string taken(20000, '\0');
  ASSERT_EQ(psp_inputBuffGetBytes(in_, taken.data(), 20000), PSP_OKAY);
  EXPECT_EQ(taken, std::string(20000, 'b'));
  EXPECT_EQ(liar.calls, 4);
  // A length of 0x62626262 before 3.5 MB: memory follows what arrives.
  char *string = nullptr;
  const size_t before = memory_in_use();
  EXPECT_EQ(psp_inputBuffGetString(in_, &string), kBroken);
  EXPECT_EQ(string, nullptr);
  EXPECT_LT(liar.most_memory, before + (16u << 20));
  // Longer than what is trusted at once, and there.
  for (const size_t size : {(1u << 20), (1u << 20) + 1, (5u << 20) + 3}) {
    std::string text(size, 't');
    text.back() = 'e';
    open();
    ASSERT_EQ(psp_outputBuffPutStringWithLength(out_, text.c_str()), PSP_OKAY);
    ASSERT_EQ(psp_outputBuffFlush(out_), PSP_OKAY);
    EXPECT_TRUE(get_string() == text);
  }
}

TEST_F(TypedBuffers, WrongArgumentsDoNothing) {
  open();
  psp_inputBuff *in = nullptr;
  psp_outputBuff *out = nullptr;
  char text[4];
  const psp_status statuses[] = {psp_inputBuffCreate(nullptr, read_timed, &wire_, 0, &in),
                                 psp_inputBuffCreate(read_wire, read_timed, &wire_, 0, nullptr),
                                 psp_inputBuffGetInt16(nullptr, nullptr),
                                 psp_inputBuffGetString(nullptr, nullptr),
                                 psp_inputBuffGetStringWithLength(nullptr, text, 4),
                                 psp_inputBuffGetBytes(nullptr, text, 4),
                                 psp_outputBuffCreate(nullptr, &wire_, 0, &out),
                                 psp_outputBuffCreate(write_wire, &wire_, 0, nullptr),
                                 psp_outputBuffPutInt16(nullptr, 1),
                                 psp_outputBuffPutString(nullptr, "s"),
                                 psp_outputBuffPutString(out_, nullptr),
                                 psp_outputBuffPutStringWithLength(nullptr, "s"),
                                 psp_outputBuffPutBytes(nullptr, "b", 1),
                                 psp_outputBuffPutBytes(out_, nullptr, 1),
                                 psp_outputBuffFlush(nullptr),
                                 psp_outputBuffSendDirect(nullptr, "b", 1),
                                 psp_outputBuffSendDirect(out_, nullptr, 1)};
  for (const psp_status status : statuses) EXPECT_EQ(status, PSP_ERR_INVARG);
  EXPECT_TRUE(in == nullptr && out == nullptr);
  psp_inputBuffReset(nullptr);
  EXPECT_EQ(psp_outputBuffFlush(out_), PSP_OKAY);
  EXPECT_TRUE(wire_.calls.empty());
  psp_inputBuffDestroy(std::exchange(in_, nullptr));
  psp_outputBuffDestroy(std::exchange(out_, nullptr));
  psp_term();
  EXPECT_EQ(psp_inputBuffCreate(read_wire, nullptr, nullptr, 0, &in), PSP_ERR_NOMEMORY);
  EXPECT_EQ(in, nullptr);
  ASSERT_EQ(psp_init(), PSP_OKAY);
}

}  // namespace
