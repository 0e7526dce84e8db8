// Faults under typed buffers: memory for buffers and strings, and transports that fail or jump.
#include <gtest/gtest.h>

#include <cstring>

#include "support/faults.h"

namespace {

using namespace psp::faults;

constexpr int kLength = (1 << 20) + 70000;  // memory for the string grows once
constexpr psp_status kBroken = 77;

psp_inputBuff *in;
psp_outputBuff *out;
char *text;
uint32_t reads;
uint64_t sent;

// Transports that need memory of the default tag, now and then before a block of the long string.
bool has_memory() {
  void *block = psp_alloc(10, nullptr);
  psp_freeMem(block, nullptr);
  return block != nullptr;
}

int32_t read_blocks(void *, void *buffer, uint32_t capacity, uint32_t *filled) {
  if (reads % 100 == 1 && !has_memory()) return kBroken;
  memset(buffer, 'b', capacity);
  if (reads++ == 0) {
    constexpr int kFirst = 9, kLengthAt = 4 + kFirst;  // a string that is there as a whole
    memcpy(buffer, &kFirst, sizeof kFirst);
    memcpy(static_cast<char *>(buffer) + kLengthAt, &kLength, sizeof kLength);
  }
  *filled = capacity;
  return PSP_OKAY;
}

int32_t write_blocks(void *, const void *, uint32_t count) {
  if (sent % 500'000 == 5000 && !has_memory()) return kBroken;
  sent += count;
  return PSP_OKAY;
}

FAULT_TEST(BuffersFaults, StringIsWholeOrGoneAndTheBufferGoesOn) {
  static psp_status status;
  Scenario scenario{.sweeps = kAllocations | kJumps};
  scenario.act = [] {
    in = nullptr;
    out = nullptr;
    text = nullptr;
    reads = 0;
    sent = 0;
    status = psp_inputBuffCreate(read_blocks, nullptr, nullptr, 0, &in);
    if (status == PSP_OKAY) status = psp_outputBuffCreate(write_blocks, nullptr, 0, &out);
    if (status == PSP_OKAY) status = psp_inputBuffGetString(in, &text);
    if (status == PSP_OKAY) psp_freeMem(text, nullptr);
    text = nullptr;
    if (status == PSP_OKAY) status = psp_inputBuffGetString(in, &text);
    if (status == PSP_OKAY) status = psp_outputBuffPutStringWithLength(out, text);
    if (status == PSP_OKAY) status = psp_outputBuffFlush(out);
    return status == PSP_OKAY;
  };
  scenario.judge = [](const Run &run) {
    EXPECT_TRUE(run.jumped || run.worked == (status == PSP_OKAY));
    EXPECT_TRUE(run.worked || run.jumped || status == PSP_ERR_NOMEMORY || status == kBroken);
    EXPECT_EQ(run.worked, sent == kLength + 4);
    EXPECT_TRUE(text == nullptr || strspn(text, "b") == kLength);
    // Whatever happened: the buffers that are there go on.
    const uint64_t before = sent;
    EXPECT_TRUE(in == nullptr || psp_inputBuffGetChar(in, nullptr) == PSP_OKAY);
    EXPECT_TRUE(out == nullptr || psp_outputBuffPutChar(out, 'c') == PSP_OKAY);
    EXPECT_TRUE(out == nullptr || (psp_outputBuffFlush(out) == PSP_OKAY && sent > before));
  };
  scenario.clean = [] {
    psp_inputBuffDestroy(in);
    psp_outputBuffDestroy(out);
    psp_freeMem(text, nullptr);
  };
  sweep(scenario);
}

}  // namespace
