// Typed buffers against the streams of libtirpc: xdrmem, which works on memory alone, and xdrrec,
// which has a transport below it as typed buffers do. The transport of both is memory.
//
// One operation puts kValues values, hands them over, and gets them back. All contenders send the
// highest byte first; the peers send small values as 32 bits and fill strings up, as their format
// asks. A text becomes a new string that is released; the text of a row goes into given space.
#include <rpc/types.h>
#include <rpc/xdr.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "bench.h"
#include "psp.h"

namespace psp_bench {
namespace {

using benchmark::State;

constexpr int kValues = 1000;
constexpr uint32_t kSeed = 20240611;
constexpr double kAtMost = 0.6;
constexpr uint32_t kBlockBytes = 5000;    // that a call of the transport moves, for both
constexpr size_t kMemoryBytes = 1 << 18;  // holds kValues values of any kind
constexpr uint32_t kNameBytes = 32;       // of a row, terminator included

struct Text {
  char *text;
};
struct Piece {
  char bytes[100];
};
struct Row {
  int32_t number;
  int64_t key;
  double amount;
  int16_t flags;
  char kind;
  char name[kNameBytes];
};

// ---- Values -------------------------------------------------------------------------------------

std::mt19937_64 random_bits(kSeed);

template <class Number>
void fill(Number *value) {
  // Below the largest integer, so that a float that was rounded up can be one again.
  *value = static_cast<Number>(static_cast<int64_t>(random_bits()) / 2);
}
void fill(Text *value) {
  static std::vector<std::string> *texts = [] {
    auto *all = new std::vector<std::string>;
    all->reserve(kValues);
    return all;
  }();
  value->text = texts->emplace_back("/var/lib/database/segment-0000000001.dat").data();
  value->text[1 + random_bits() % 40] = '\0';
}
void fill(Piece *value) {
  for (char &byte : value->bytes) byte = static_cast<char>(random_bits());
}
void fill(Row *value) {
  fill(&value->number);
  fill(&value->key);
  fill(&value->amount);
  fill(&value->flags);
  fill(&value->kind);
  strcpy(value->name, "customer of the branch office");
  value->name[random_bits() % 30] = '\0';
}

template <class Value>
const std::vector<Value> &values() {
  static const std::vector<Value> all = [] {
    std::vector<Value> result(kValues);
    for (Value &value : result) fill(&value);
    return result;
  }();
  return all;
}

template <class Number>
uint64_t digest_of(const Number &value) {
  return static_cast<uint64_t>(static_cast<int64_t>(value));
}
uint64_t digest_of(const Text &value) { return static_cast<unsigned char>(value.text[0]); }
uint64_t digest_of(const Piece &value) { return static_cast<unsigned char>(value.bytes[99]); }
uint64_t digest_of(const Row &value) {
  return digest_of(value.key) + digest_of(value.flags) + digest_of(value.name[0]);
}

// ---- Contenders ---------------------------------------------------------------------------------

// The transport: what is written comes back, from the beginning after each rewind.
struct Memory {
  std::vector<char> bytes = std::vector<char>(kMemoryBytes);
  size_t written = 0;
  size_t read = 0;
  void rewind() { written = read = 0; }
  void write(const void *data, size_t count) {
    memcpy(bytes.data() + written, data, count);
    written += count;
  }
  size_t take(void *buffer, size_t capacity) {
    const size_t count = std::min(capacity, written - read);
    memcpy(buffer, bytes.data() + read, count);
    read += count;
    return count;
  }
};

class Ours {
 public:
  Ours() {
    const auto read = [](void *memory, void *buffer, uint32_t capacity, uint32_t *filled) {
      *filled = static_cast<uint32_t>(static_cast<Memory *>(memory)->take(buffer, capacity));
      return *filled != 0 ? PSP_OKAY : PSP_FAILED;
    };
    const auto write = [](void *memory, const void *data, uint32_t count) {
      static_cast<Memory *>(memory)->write(data, count);
      return PSP_OKAY;
    };
    if (psp_inputBuffCreate(read, nullptr, &memory_, 1, &in_) != PSP_OKAY ||
        psp_outputBuffCreate(write, &memory_, 1, &out_) != PSP_OKAY) {
      abort();
    }
  }
  ~Ours() {
    psp_inputBuffDestroy(in_);
    psp_outputBuffDestroy(out_);
  }
  void start_putting() { memory_.rewind(); }
  bool start_getting() {
    psp_inputBuffReset(in_);
    return psp_outputBuffFlush(out_) == PSP_OKAY;
  }

  bool put(char value) { return psp_outputBuffPutChar(out_, value) == PSP_OKAY; }
  bool put(int16_t value) { return psp_outputBuffPutInt16(out_, value) == PSP_OKAY; }
  bool put(int32_t value) { return psp_outputBuffPutInt32(out_, value) == PSP_OKAY; }
  bool put(int64_t value) { return psp_outputBuffPutInt64(out_, value) == PSP_OKAY; }
  bool put(float value) { return psp_outputBuffPutFloat32(out_, value) == PSP_OKAY; }
  bool put(double value) { return psp_outputBuffPutFloat64(out_, value) == PSP_OKAY; }
  bool put(const char *text) { return psp_outputBuffPutStringWithLength(out_, text) == PSP_OKAY; }
  bool put(const Text &value) { return put(value.text); }
  bool put(const Piece &value) {
    return psp_outputBuffPutBytes(out_, value.bytes, sizeof value.bytes) == PSP_OKAY;
  }
  bool put(const Row &row) {
    return put(row.number) && put(row.key) && put(row.amount) && put(row.flags) && put(row.kind) &&
           put(row.name);
  }

  bool get(char *value) { return psp_inputBuffGetChar(in_, value) == PSP_OKAY; }
  bool get(int16_t *value) { return psp_inputBuffGetInt16(in_, value) == PSP_OKAY; }
  bool get(int32_t *value) { return psp_inputBuffGetInt32(in_, value) == PSP_OKAY; }
  bool get(int64_t *value) { return psp_inputBuffGetInt64(in_, value) == PSP_OKAY; }
  bool get(float *value) { return psp_inputBuffGetFloat32(in_, value) == PSP_OKAY; }
  bool get(double *value) { return psp_inputBuffGetFloat64(in_, value) == PSP_OKAY; }
  bool get(Text *value) { return psp_inputBuffGetString(in_, &value->text) == PSP_OKAY; }
  bool get(Piece *value) {
    return psp_inputBuffGetBytes(in_, value->bytes, sizeof value->bytes) == PSP_OKAY;
  }
  bool get(Row *row) {
    return get(&row->number) && get(&row->key) && get(&row->amount) && get(&row->flags) &&
           get(&row->kind) &&
           psp_inputBuffGetStringWithLength(in_, row->name, kNameBytes) == PSP_OKAY;
  }
  template <class Value>
  void release(Value *) {}
  void release(Text *value) { psp_freeMem(value->text, nullptr); }

 private:
  Memory memory_;
  psp_inputBuff *in_ = nullptr;
  psp_outputBuff *out_ = nullptr;
};

// What both streams of the peer share: one function codes both ways.
class Xdr {
 public:
  template <class Value>
  bool put(Value value) {
    return code(&value);
  }
  bool get(Text *value) {
    value->text = nullptr;  // asks for a new string
    return code(value);
  }
  template <class Value>
  bool get(Value *value) {
    return code(value);
  }
  template <class Value>
  void release(Value *) {}
  void release(Text *value) { free(value->text); }

 protected:
  bool code(char *value) { return xdr_char(&stream_, value); }
  bool code(int16_t *value) { return xdr_int16_t(&stream_, value); }
  bool code(int32_t *value) { return xdr_int32_t(&stream_, value); }
  bool code(int64_t *value) { return xdr_int64_t(&stream_, value); }
  bool code(float *value) { return xdr_float(&stream_, value); }
  bool code(double *value) { return xdr_double(&stream_, value); }
  bool code(Text *value) { return xdr_string(&stream_, &value->text, kBlockBytes); }
  bool code(Piece *value) { return xdr_opaque(&stream_, value->bytes, sizeof value->bytes); }
  bool code(Row *row) {
    char *name = row->name;
    return code(&row->number) && code(&row->key) && code(&row->amount) && code(&row->flags) &&
           code(&row->kind) && xdr_string(&stream_, &name, kNameBytes - 1);
  }
  Memory memory_;
  XDR stream_ = {};
};

struct XdrMemory : Xdr {
  void start_putting() { xdrmem_create(&stream_, memory_.bytes.data(), kMemoryBytes, XDR_ENCODE); }
  bool start_getting() {
    xdrmem_create(&stream_, memory_.bytes.data(), kMemoryBytes, XDR_DECODE);
    return true;
  }
};

struct XdrRecord : Xdr {
  XdrRecord() {
    const auto read = [](void *memory, void *buffer, int capacity) {
      const size_t count =
          static_cast<Memory *>(memory)->take(buffer, static_cast<size_t>(capacity));
      return count != 0 ? static_cast<int>(count) : -1;
    };
    const auto write = [](void *memory, void *data, int count) {
      static_cast<Memory *>(memory)->write(data, static_cast<size_t>(count));
      return count;
    };
    xdrrec_create(&stream_, kBlockBytes, kBlockBytes, &memory_, read, write);
  }
  ~XdrRecord() { xdr_destroy(&stream_); }
  void start_putting() {
    memory_.rewind();
    stream_.x_op = XDR_ENCODE;
  }
  bool start_getting() {
    const bool sent = xdrrec_endofrecord(&stream_, TRUE);
    stream_.x_op = XDR_DECODE;
    return sent && xdrrec_skiprecord(&stream_);
  }
};

// ---- Cases --------------------------------------------------------------------------------------

template <class Value, class Codec>
uint64_t there_and_back(State &state) {
  const std::vector<Value> &sent = values<Value>();
  Codec codec;
  uint64_t sum = 0;
  for (auto _ : state) {
    bool good = true;
    codec.start_putting();
    for (const Value &value : sent) good &= codec.put(value);
    good &= codec.start_getting();
    sum = 0;
    for (int count = 0; good && count < kValues; ++count) {
      Value value;
      good = codec.get(&value);
      if (!good) break;
      sum += digest_of(value);
      codec.release(&value);
    }
    if (!good) state.SkipWithError("failed");
  }
  return sum;
}

template <class Value>
void add_values(const std::string &kind) {
  add_case("buffers/1,000 " + kind + " there and back",
           {{"psp", there_and_back<Value, Ours>},
            {"xdrmem", there_and_back<Value, XdrMemory>, kAtMost},
            {"xdrrec", there_and_back<Value, XdrRecord>, kAtMost}});
}

void add_buffer_cases() {
  add_values<char>("characters");
  add_values<int16_t>("16-bit integers");
  add_values<int32_t>("32-bit integers");
  add_values<int64_t>("64-bit integers");
  add_values<float>("32-bit floats");
  add_values<double>("64-bit floats");
  add_values<Text>("strings");
  add_values<Piece>("pieces of 100 bytes");
  add_values<Row>("rows of 6 fields");
}

const Registration registration(add_buffer_cases);

}  // namespace
}  // namespace psp_bench
