// Text streams: tables of what files read as and modes leave, and what happens when the file does
// not take what is written. Random calls are made by the fuzz target.
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <filesystem>
#include <string>

#include "psp.h"
#include "streams/stream.h"
#include "support/fixtures.h"

namespace {

using namespace std::string_literals;

class StreamTest : public psp::tests::StartedInFolder {
 protected:
  void put(const std::string &bytes) const { Folder::put("file", bytes); }
  std::string get() const { return Folder::get("file"); }
  psp_stream *open(const char *mode, uint32_t width = 1) const {
    return psp_fopenEx(name_.c_str(), mode, width, PSP_FILE_NOSYNC);
  }
  const std::string name_ = path("file");
};

std::string utf16(const std::u16string &text) {
  std::string bytes;
  for (const char16_t unit : text) {
    bytes += {static_cast<char>(unit), static_cast<char>(unit >> 8)};
  }
  return bytes;
}

std::string read_by_character(psp_stream *stream) {
  std::string text;
  for (int32_t c = psp_fgetc(stream); c != -1; c = psp_fgetc(stream)) text += static_cast<char>(c);
  return text;
}

std::string read_by_line(psp_stream *stream) {
  std::string text;
  char buffer[40];
  while (psp_fgets(buffer, sizeof buffer, stream) != nullptr) text += buffer;
  return text;
}

// ---- Reading ------------------------------------------------------------------------------------

TEST_F(StreamTest, FilesReadAsTheirText) {
  const struct {
    std::string file, text;
  } kTable[] = {
      {"", ""},
      {"ab\r\ncd\rx", "ab\ncd\rx"},
      {"a\r", "a\r"},
      {"\r\r\n\r\rb", "\n\r\rb"},
      {std::string(25, '\r') + "b", std::string(20, '\r') + "b"},  // as many as are pushed back
      {"\xEF\xBB\xBF\xC3\xA9\n", "\xC3\xA9\n"},
      {"\xEF\xBB", "\xEF\xBB"},
      {"\xEF", "\xEF"},
      {"\xEFx", "\xEFx"},
      {"\xFEx", "\xFEx"},
      {utf16(u"\uFEFFA\r\n\u00E9"), "A\n\xC3\xA9"},
      {utf16(u"\uFEFF\u20AC") + "\x00\xDC"s + "B\0"s, "\xE2\x82\xAC.B"},
      {utf16(u"\uFEFF\U0001F600") + "\x01\xD8"s + "AB", "\xF0\x9F\x98\x80\xF0\x90\x99\x81"},
      {utf16(u"\uFEFFA") + "\x00\xD8\x00"s, "A"},
      {utf16(u"\uFEFF") + "A", ""},
      {"\xFE\xFF\0A\xD8\x3D\xDE\0\0"s, "A\xF0\x9F\x98\x80"},
      {"\xFF\xFE", ""},
  };
  for (const auto &row : kTable) {
    SCOPED_TRACE(testing::PrintToString(row.file));
    put(row.file);
    psp_stream *stream = open("r", 2);
    ASSERT_NE(stream, nullptr);
    EXPECT_EQ(read_by_character(stream), row.text);
    EXPECT_EQ(psp_fseek(stream, 0, PSP_SEEK_START), PSP_OKAY);
    EXPECT_EQ(read_by_line(stream), row.text);
    psp_fclose(stream);
  }
}

TEST_F(StreamTest, LineBufferGrowsByHundredsAndIsReused) {
  put(std::string(250, 'x'));
  psp_stream *stream = open("r");
  char *line = nullptr;
  uint32_t size = 0;
  EXPECT_EQ(psp_fGetLine(stream, &line, &size), line);
  EXPECT_EQ(line, std::string(250, 'x'));
  EXPECT_EQ(size, 400u);
  EXPECT_EQ(psp_fGetLine(stream, &line, &size), nullptr);
  EXPECT_EQ(size, 400u);

  psp_fseek(stream, 0, PSP_SEEK_START);
  line[0] = '\0';
  size = 1;  // room for nothing
  EXPECT_STREQ(psp_fGetLine(stream, &line, &size), std::string(250, 'x').c_str());
  EXPECT_EQ(size, 401u);

  psp_fseek(stream, -3, PSP_SEEK_END);
  size = UINT32_MAX - 50;  // cannot grow
  EXPECT_EQ(psp_fGetLine(stream, &line, &size), nullptr);
  EXPECT_STREQ(line, "xxx");
  EXPECT_EQ(size, UINT32_MAX - 50);
  psp_freeMem(line, nullptr);

  line = nullptr;
  EXPECT_EQ(psp_fGetLine(stream, &line, &size), nullptr);
  EXPECT_EQ(line, nullptr);
  EXPECT_EQ(psp_fGetLine(stream, nullptr, &size), nullptr);
  EXPECT_EQ(psp_fGetLine(stream, &line, nullptr), nullptr);
  EXPECT_EQ(psp_fGetLine(nullptr, &line, &size), nullptr);
  psp_fclose(stream);
}

// ---- Opening and writing ------------------------------------------------------------------------

TEST_F(StreamTest, ModesOpenAsTold) {
  for (const char *mode : {"rb", "t", "wx", "r ", "R", "++-", "ww?"}) {
    EXPECT_EQ(open(mode), nullptr) << mode;
  }
  EXPECT_EQ(psp_fopen(nullptr, "w", 1), nullptr);
  EXPECT_EQ(open("r+"), nullptr) << "creates nothing";
  EXPECT_EQ(open("+r"), nullptr);
  EXPECT_FALSE(std::filesystem::exists(name_));
  const struct {
    const char *mode;
    std::string after;  // of the file "old" when "new" has been written
  } kTable[] = {{"r+", "new"},    {"w", "new"},   {"w+", "new"},      {"a", "oldnew"},
                {"a+", "oldnew"}, {"raw", "new"}, {"rwa!", "oldnew"}, {"+", "new"}};
  for (const auto &row : kTable) {
    put("old");
    psp_stream *stream = open(row.mode, 0);
    ASSERT_NE(stream, nullptr) << row.mode;
    EXPECT_EQ(psp_fputs("new", stream), 3);
    psp_fclose(stream);
    EXPECT_EQ(get(), row.after) << row.mode;
  }
  psp_stream *stream = open(nullptr);
  EXPECT_EQ(read_by_character(stream), "new");
  EXPECT_EQ(psp_fseek(stream, 0, 3), PSP_FAILED);
  EXPECT_EQ(psp_fseek(stream, -1, PSP_SEEK_START), PSP_FAILED);
  EXPECT_EQ(psp_fseek(stream, -1, PSP_SEEK_CURRENT), PSP_OKAY);
  EXPECT_EQ(psp_fgetc(stream), 'w');
  psp_fclose(stream);
}

TEST_F(StreamTest, SixteenBitOutputIsMarkedOnce) {
  psp_stream *stream = open("a", 2);
  EXPECT_EQ(psp_fputs("x\n", stream), 2);
  EXPECT_EQ(psp_fputs("\xF0\x9F", stream), 2);
  EXPECT_EQ(psp_fflush(stream), -1) << "half a character waits";
  EXPECT_EQ(psp_fputc('\n', stream), 0);
  EXPECT_EQ(psp_fputs("\x98\x80\xC0", stream), -1);
  EXPECT_EQ(psp_fflush(stream), 0);
  psp_fclose(stream);
  stream = open("a", 2);
  EXPECT_EQ(psp_fputs("y", stream), 1);
  psp_fclose(stream);
  EXPECT_EQ(get(), "\xFF\xFEx\0\r\0\n\0\x3D\xD8\x00\xDEy\0"s);
}

TEST_F(StreamTest, MissingArgumentsOddWidthsAndFarPlacesAreRefused) {
  char buffer[4];
  EXPECT_EQ(psp_fopen_std(nullptr), nullptr);
  EXPECT_EQ(psp_fseek(nullptr, 0, PSP_SEEK_START), PSP_FAILED);
  EXPECT_EQ(psp_fgetc(nullptr) + psp_fungetc('x', nullptr) + psp_fputs("x", nullptr), -3);
  EXPECT_EQ(psp_fputc('x', nullptr), 0);
  EXPECT_EQ(psp_fgets(buffer, 4, nullptr), nullptr);
  EXPECT_EQ(psp_fprintf(nullptr, "x"), -1);
  psp_stream *stream = open("w+", 3);
  EXPECT_EQ(psp_fgets(nullptr, 4, stream), nullptr);
  EXPECT_EQ(psp_fputs(nullptr, stream) + psp_fprintf(stream, nullptr), -2);
  EXPECT_EQ(psp_fprintf(stream, "%s", ""), 0);
  EXPECT_EQ(psp_fputc('x', stream), 0);
  EXPECT_EQ(psp_fgetc(stream), 0);
  char *line = nullptr;
  uint32_t size = 0;
  EXPECT_EQ(psp_fGetLine(stream, &line, &size), nullptr);
  psp_fclose(stream);
  put(std::string(3000, '1'));
  stream = open("r");
  std::filesystem::resize_file(name_, 0);
  psp::streams::Line whole = {};
  EXPECT_EQ(psp::streams::read_whole_line(stream, &whole), psp::streams::LineResult::kFailed)
      << "the file was cut meanwhile";
  psp_freeMem(whole.text, nullptr);
  psp_fclose(stream);
  std::error_code refusal;
  const psp::tests::Folder memory(true);
  std::filesystem::resize_file(memory.put("far", ""), INT64_MAX, refusal);
  if (refusal) GTEST_SKIP() << "no file can be as long as that here";
  stream = psp_fopen(memory.path("far").c_str(), "r", 1);
  EXPECT_EQ(psp_fseek(stream, 1, PSP_SEEK_END), PSP_FAILED);
  psp_fclose(stream);
}

// ---- Files that do not take everything ----------------------------------------------------------

// Each read of this standard input gives one byte.
TEST_F(StreamTest, MarkIsFoundInAPipeThatTrickles) {
  for (const std::string sent : {"\xEF\xBB\xBFx\r\ny", "\xEF\xBBx\r\ny"}) {
    int ends[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends), 0);
    for (const char c : sent) ASSERT_EQ(write(ends[0], &c, 1), 1);
    close(ends[0]);
    dup2(ends[1], 0);
    close(ends[1]);
    psp_stream *stream = psp_fopen("stdin", "r", 1);
    EXPECT_EQ(read_by_line(stream), sent[2] == 'x' ? "\xEF\xBBx\ny" : "x\ny");
    EXPECT_EQ(psp_fseek(stream, 99, PSP_SEEK_START) + psp_fgetc(stream), -1);
    psp_fclose(stream);
  }
}

TEST_F(StreamTest, ReadOnlyModeDropsOutputInSilence) {
  put("old");
  psp_stream *stream = open("r+");
  psp_rdonly();
  EXPECT_EQ(open("w"), nullptr);
  EXPECT_EQ(psp_fputs(std::string(5000, 'x').c_str(), stream), 5000);
  EXPECT_EQ(psp_fflush(stream), 0);
  psp_fclose(stream);
  EXPECT_EQ(get(), "old");
}

}  // namespace
