// Faults under streams, channels and log. The console channels write to a file here, so that the
// judges see what reached them.
#include <gtest/gtest.h>

#include <cerrno>

#include "support/faults.h"

namespace {

using namespace psp::faults;

psp_stream *stream;

const char *path() {
  static const char *const kPath = scratch_path("text");
  return kPath;
}

void close_stream() {
  psp_fclose(stream);
  stream = nullptr;
}

// ASCII text as a file of the width holds it.
std::string encoded(const std::string &text, size_t width) {
  std::string bytes = width == 2 ? "\xFF\xFE" : "";
  for (const char letter : text) bytes.append({letter, '\0'}, 0, width);
  return bytes;
}

// ---- Streams ------------------------------------------------------------------------------------

FAULT_TEST(StreamFaults, FailedOpenLeavesTheFileAlone) {
  const std::function<psp_stream *()> opens[] = {
      [] { return psp_fopen(path(), "r", 1); },
      [] { return psp_fopen(path(), "w+", 2); },
      [] { return psp_fopen(path(), "a", 2); },
      [] { return psp_fopen_std("stdin"); },
  };
  for (const auto &open : opens) {
    Scenario scenario{.sweeps = kAllocations | kJumps | kCalls | kSystem, .codes = {EIO, EMFILE}};
    scenario.prepare = [] { put_file(path(), encoded("old", 2)); };
    scenario.act = [&open] { return (stream = open()) != nullptr; };
    scenario.judge = [](const Run &run) {
      EXPECT_TRUE(run.worked || get_file(path()) == encoded("old", 2));
      EXPECT_TRUE(run.worked || run.error == expected_error(run));
    };
    scenario.clean = close_stream;
    sweep(scenario);
  }
}

FAULT_TEST(StreamFaults, AppendingNeverOverwritesWhatIsThere) {
  Scenario scenario{.sweeps = kAllocations | kCalls | kShorts | kSystem};
  scenario.act = [] {
    put_file(path(), "old");
    stream = psp_fopen(path(), "a", 1);
    const bool worked = psp_fputs("new", stream) == 3 && psp_fflush(stream) == 0;
    return worked && get_file(path()) == "oldnew";
  };
  scenario.judge = [](const Run &) { EXPECT_EQ(get_file(path()).substr(0, 3), "old"); };
  scenario.clean = close_stream;
  sweep(scenario);
}

FAULT_TEST(StreamFaults, LineIsNullOrItsBeginningOrWhole) {
  static const std::string kLine = std::string(250, 'x') + "\n";
  static char *line, *got;
  static uint32_t size;
  for (const uint32_t width : {1, 2}) {
    Scenario scenario{.sweeps = kAllocations | kJumps | kCalls | kShorts | kSystem};
    scenario.prepare = [width] { put_file(path(), encoded(kLine, width)); };
    scenario.act = [] {
      line = got = nullptr;
      stream = psp_fopen(path(), "r", 1);
      got = psp_fGetLine(stream, &line, &size);
      return got != nullptr && got == kLine;
    };
    scenario.judge = [](const Run &run) {
      const std::string text = line != nullptr ? line : "";
      EXPECT_EQ(text, kLine.substr(0, text.size()));
      EXPECT_TRUE(line == nullptr || text.size() < size);
      EXPECT_TRUE(run.worked || got == nullptr || run.fault.kind != Kind::kAllocation);
    };
    scenario.clean = [] {
      psp_freeMem(line, nullptr);
      close_stream();
    };
    sweep(scenario);
  }
}

FAULT_TEST(StreamFaults, AcceptedCharactersOutliveAFailedWrite) {
  static std::string accepted;
  for (const uint32_t width : {1, 2}) {
    Scenario scenario{.sweeps = kCalls | kShorts | kSystem, .codes = {ENOSPC, EIO}};
    scenario.prepare = [width] {
      accepted.clear();
      stream = psp_fopen(path(), "w", width);
    };
    scenario.act = [] {
      const size_t before = accepted.size();
      for (int index = 0; index < 3000; ++index) {
        const char letter = static_cast<char>('a' + index % 26);
        if (psp_fputc(letter, stream) == 1) accepted += letter;
      }
      psp_fflush(stream);
      return accepted.size() - before == 3000;
    };
    scenario.judge = [width](const Run &) {
      EXPECT_EQ(psp_fflush(stream), 0);
      EXPECT_EQ(get_file(path()), encoded(accepted, width));
    };
    scenario.finish = close_stream;
    sweep(scenario);
  }
}

// A gap, a line that fills the block, characters of 16 bits, and reading behind what waits.
FAULT_TEST(StreamFaults, WhatIsWrittenBehindAGapFailsOrIsThere) {
  for (const uint16_t mode : {uint16_t{0}, uint16_t{PSP_FILE_MEMORY}}) {
    for (const uint32_t width : {1, 2}) {
      Scenario scenario{.sweeps = mode == 0 ? kCalls | kShorts | kSystem : kAllocations};
      scenario.keeps_any_blocks = true;
      scenario.act = [mode, width] {
        static const std::string kLine = std::string(1020, 'x') + "\n";
        stream = psp_fopenEx(mode == 0 ? path() : "\\gap", "w+", width, mode);
        bool worked = psp_fseek(stream, 20'000, PSP_SEEK_START) == PSP_OKAY;
        worked &= psp_fputs("\xC3\xA9\n", stream) == 3 && psp_fputs(kLine.c_str(), stream) == 1021;
        for (int index = 0; index < 600; ++index) worked &= psp_fputs("\xC3\xA9", stream) == 2;
        worked &= psp_fseek(stream, 20'000, PSP_SEEK_START) == PSP_OKAY;
        return worked && psp_fgetc(stream) == 0xC3 - 256;
      };
      scenario.clean = close_stream;
      sweep(scenario);
    }
  }
}

FAULT_TEST(StreamFaults, FormattedTextGoesOutWholeOrNotAtAll) {
  static const std::string kText(5000, 'x');
  Scenario scenario{.sweeps = kAllocations | kJumps};
  scenario.act = [] {
    stream = psp_fopen(path(), "w", 1);
    return psp_fprintf(stream, "%s", kText.c_str()) == 5000;
  };
  scenario.judge = [](const Run &run) {
    psp_fflush(stream);
    EXPECT_TRUE(stream == nullptr || get_file(path()) == (run.worked ? kText : ""));
  };
  scenario.clean = close_stream;
  sweep(scenario);
}

// ---- Channels and log ---------------------------------------------------------------------------

std::string console() { return get_file(scratch_path("console")); }
std::string log_file() { return get_file(scratch_path("log")); }

void push_files() {
  EXPECT_EQ(psp_stdout_open(scratch_path("console")), PSP_OKAY);
  EXPECT_EQ(psp_stderr_open(scratch_path("console")), PSP_OKAY);
  EXPECT_EQ(psp_log_open(scratch_path("log")), PSP_OKAY);
}

void empty_files() {
  psp_stdout_close();
  psp_stderr_close();
  psp_log_close();
  push_files();
}

FAULT_TEST(ChannelFaults, FailedPushLeavesTheChannelAsItWas) {
  static const char *const kFolder = scratch_path("");
  static psp_status status;
  Scenario scenario{.sweeps = kAllocations | kJumps | kCalls | kSystem};
  scenario.prepare = [] { EXPECT_EQ(psp_log_open(scratch_path("log")), PSP_OKAY); };
  scenario.act = [] { return (status = psp_log_create(kFolder, "second")) == PSP_OKAY; };
  scenario.judge = [](const Run &run) {
    EXPECT_TRUE(run.worked || run.fault.kind != Kind::kCall || status == PSP_FAILED);
    psp_stdout_open("");
    psp_log("mark\n");
    psp_stdout_close();
    const std::string top = run.worked ? get_file(scratch_path("second")) : log_file();
    EXPECT_TRUE(top.ends_with("  mark\r\n")) << top;
    if (run.worked) psp_log_close();
  };
  sweep(scenario);
}

FAULT_TEST(ChannelFaults, FailingOutputKeepsTheMessageAndLeavesTheOtherItsOwn) {
  Scenario scenario{.sweeps = kCalls | kShorts | kSystem, .codes = {ENOSPC, EIO}};
  scenario.prepare = push_files;
  scenario.act = [] { return psp_log("message %d\n", 1) == 10; };
  scenario.judge = [](const Run &run) {
    EXPECT_TRUE(run.worked);  // a stream takes what it cannot write yet
    EXPECT_EQ(console(), "message 1\r\n");
    EXPECT_TRUE(log_file().ends_with("  message 1\r\n")) << log_file();
  };
  scenario.clean = empty_files;
  sweep(scenario);
}

// What a standard channel has taken cannot be taken back.
FAULT_TEST(ChannelFaults, StandardOutputGetsEveryByteOnce) {
  Scenario scenario{.sweeps = kCalls | kShorts | kSystem};
  scenario.act = [] { return psp_log("message %d\n", 1) == 10; };
  scenario.judge = [](const Run &run) {
    EXPECT_TRUE(run.output.ends_with("message 1\r\n")) << run.output;
    EXPECT_EQ(run.output.find("me"), run.output.rfind("me")) << run.output;
  };
  sweep(scenario);
}

FAULT_TEST(ChannelFaults, MessageWithoutMemoryIsDroppedWhole) {
  static const std::string kLong(3000, 'x');
  const std::function<int32_t()> calls[] = {
      [] { return psp_log("%s\n", kLong.c_str()); },
      [] { return psp_log_err("%s\n", kLong.c_str()); },
      [] { return psp_printf("%s\n", kLong.c_str()); },
      [] { return psp_printfErr("%s\n", kLong.c_str()); },
  };
  for (const auto &call : calls) {
    Scenario scenario;
    scenario.prepare = push_files;
    scenario.act = [&call] { return call() == 3001; };
    scenario.judge = [](const Run &run) { EXPECT_EQ(console(), run.worked ? kLong + "\r\n" : ""); };
    scenario.clean = empty_files;
    sweep(scenario);
  }
}

FAULT_TEST(ChannelFaults, ChunkLosesWholePiecesOnly) {
  Scenario scenario;
  scenario.prepare = push_files;
  scenario.act = [] {
    psp_logChunk *chunk = psp_log_chunk_init();
    psp_log_chunk(chunk, "<%d>", 1);
    psp_log_chunk(chunk, "<%d>", 22);
    psp_log_chunk_end(chunk, "<%d>\n", 333);
    return console() == "<1><22><333>\r\n";
  };
  scenario.judge = [](const Run &) {
    std::string left = console();
    for (const std::string piece : {"<1>", "<22>", "<333>\r\n"}) {
      if (left.starts_with(piece)) left.erase(0, piece.size());
    }
    EXPECT_EQ(left, "");
  };
  scenario.clean = empty_files;
  sweep(scenario);
}

}  // namespace
