// Text streams: tables of what files read as, a slow model against random calls, and what happens
// when the file does not take what is written.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <csignal>
#include <cstdarg>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include "psp.h"
#include "support/stream_model.h"

namespace {

using namespace std::string_literals;
using Model = psp::tests::StreamModel;

class StreamTest : public testing::Test {
 protected:
  void SetUp() override {
    std::string folder = testing::TempDir() + "psp_stream_XXXXXX";
    ASSERT_NE(mkdtemp(folder.data()), nullptr);
    folder_ = folder;
    name_ = folder + "/file";
    ASSERT_EQ(psp_init(), PSP_OKAY);
  }
  void TearDown() override {
    psp_term();
    std::filesystem::remove_all(folder_);
  }

  void put(const std::string &bytes) const { std::ofstream(name_, std::ios::binary) << bytes; }
  std::string get() const {
    std::ostringstream bytes;
    bytes << std::ifstream(name_, std::ios::binary).rdbuf();
    return bytes.str();
  }
  psp_stream *open(const char *mode, uint32_t width = 1) const {
    return psp_fopenEx(name_.c_str(), mode, width, PSP_FILE_NOSYNC);
  }

  std::filesystem::path folder_;
  std::string name_;
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

// ---- The model against random calls -----------------------------------------------------------

class RandomCalls {
 public:
  explicit RandomCalls(uint32_t seed) : random_(seed) {}

  uint32_t below(uint32_t limit) { return static_cast<uint32_t>(random_() % limit); }
  const std::string &one_of(const std::vector<std::string> &list) {
    return list[below(static_cast<uint32_t>(list.size()))];
  }
  std::string text(size_t size, const std::vector<std::string> &pieces) {
    std::string text;
    while (text.size() < size) text += one_of(pieces);
    return text;
  }
  // Near the borders of blocks more often than not.
  uint32_t place() {
    return below(2) != 0 ? below(3000) : (below(3) * 1024 + below(12) + 1018) % 3000;
  }

  // One call, made on both; both give the same.
  void call(psp_stream *stream, Model *model, bool writes) {
    bool any = false;
    switch (below(writes ? 9 : 6)) {
      case 0:
        for (uint32_t count = below(60); count != 0; --count) {
          ASSERT_EQ(psp_fgetc(stream), model->getc());
        }
        break;
      case 1: {
        const auto size = static_cast<int32_t>(below(4) == 0 ? below(1500) : below(90)) + 2;
        std::string buffer(static_cast<size_t>(size), '#');
        const std::string expected = model->gets(buffer.size() - 1, &any);
        ASSERT_EQ(psp_fgets(buffer.data(), size, stream) != nullptr, any);
        if (any) {
          ASSERT_EQ(buffer.substr(0, expected.size() + 1), expected + '\0');
        }
        break;
      }
      case 2: {
        const std::string expected = model->get_line(&any);
        ASSERT_EQ(psp_fGetLine(stream, &line_, &line_size_) != nullptr, any);
        if (any) {
          ASSERT_EQ(std::string(line_, expected.size() + 1), expected + '\0');
          ASSERT_EQ(line_size_, model->line_size);
        }
        break;
      }
      case 3: {
        const auto c = static_cast<int32_t>(below(300)) - 1;
        ASSERT_EQ(psp_fungetc(c, stream), model->push(c) ? c : -1);
        break;
      }
      case 6: {
        const char c = one_of({"a", "\n", "\r", "\xC3", "\xA9", "\xFF"s})[0];
        ASSERT_EQ(psp_fputc(c, stream), model->putc(c) ? 1 : 0);
        break;
      }
      case 7: {
        const std::string out = text(below(5) == 0 ? below(2500) : below(70), kWritten);
        ASSERT_EQ(psp_fputs(out.c_str(), stream), model->puts(out));
        break;
      }
      case 8: {
        const std::string out = text(below(5) == 0 ? below(1500) : below(70), kWritten);
        ASSERT_EQ(psp_fprintf(stream, "<%s>%d\n", out.c_str(), 7), model->puts("<" + out + ">7\n"));
        break;
      }
      case 4:
        ASSERT_EQ(psp_fflush(stream), model->pending != 0 ? -1 : 0);
        break;
      default: {
        const auto origin = static_cast<int32_t>(below(4));
        auto offset = static_cast<int32_t>(place());
        if (origin == 1) offset = static_cast<int32_t>(below(80)) - 40;
        if (origin == 2) offset = 20 - static_cast<int32_t>(below(1100));
        ASSERT_EQ(psp_fseek(stream, offset, origin), model->seek(offset, origin));
      }
    }
  }

  ~RandomCalls() { psp_freeMem(line_, nullptr); }

  const std::vector<std::string> kWritten = {"word ", "\n", "\xC3\xA9", "\xF0\x9F\x98\x80", "x"};
  const std::vector<std::string> kRead = {
      "some text ",        "\n",       "\r\n", "\r", "\xFF", "\0\0"s, "a", "\xC3\xA9",
      "\x3D\xD8\x00\xDE"s, "\r\0\n\0"s};

 private:
  std::mt19937 random_;
  char *line_ = nullptr;
  uint32_t line_size_ = 0;
};

TEST_F(StreamTest, RandomCallsGiveWhatTheModelGives) {
  const char *chosen = std::getenv("PSP_SEED");
  const auto first = chosen != nullptr ? static_cast<uint32_t>(std::atoi(chosen)) : 1;
  const uint32_t last = chosen != nullptr ? first : 1000;
  std::printf("seeds %u to %u; PSP_SEED chooses one\n", first, last);
  for (uint32_t seed = first; seed <= last; ++seed) {
    SCOPED_TRACE(seed);
    RandomCalls calls(seed);
    const std::string mode = calls.one_of({"r", "r+", "w", "w+", "a", "a+"});
    const uint32_t width = 1 + calls.below(2);
    std::string bytes = calls.one_of({"", "", "\xEF\xBB\xBF", "\xFF\xFE", "\xFE\xFF", "\xEF\xFF"});
    if (calls.below(4) != 0) bytes += calls.text(calls.place(), calls.kRead);
    put(bytes);
    Model model(bytes, mode, width);
    psp_stream *stream = open(mode.c_str(), width);
    ASSERT_NE(stream, nullptr);
    for (int count = 0; count < 60 && !HasFatalFailure(); ++count) {
      calls.call(stream, &model, mode != "r");
    }
    psp_fclose(stream);
    ASSERT_EQ(get(), model.file);
    if (HasFatalFailure()) return;
  }
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

TEST_F(StreamTest, LineEndsMeetBlockBordersAndBufferEnds) {
  const std::string kEnds[] = {"\n", "\r\n", "\r", "\r\r\n", "\xFF", "\r\xFF", "\0\n"s};
  for (size_t padding = 1020; padding <= 1026; ++padding) {
    for (const std::string &end : kEnds) {
      const std::string bytes = std::string(padding, 'x') + end + "tail" + end;
      put(bytes);
      for (const size_t size : {2, 3, 17, 500, 1024, 1025, 1026, 1027, 1028, 3000}) {
        SCOPED_TRACE(testing::Message() << padding << testing::PrintToString(end) << size);
        Model model(bytes, "r", 1);
        psp_stream *stream = open("r");
        std::string buffer(size, '#');
        bool any = true;
        for (int nothing = 0; nothing < 3; nothing += any ? 0 : 1) {
          const std::string expected = model.gets(size - 1, &any);
          const auto limit = static_cast<int32_t>(size);
          ASSERT_EQ(psp_fgets(buffer.data(), limit, stream) != nullptr, any);
          if (any) {
            ASSERT_EQ(buffer.substr(0, expected.size() + 1), expected + '\0');
          }
        }
        psp_fclose(stream);
      }
    }
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
