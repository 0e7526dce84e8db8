// The output channels and the log: where messages go, whole and stamped, before, during and after
// the life of the library.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <sstream>
#include <string>

#include "psp.h"
#include "streams/stream.h"
#include "support/fixtures.h"

namespace {

constexpr char kStamp[] = "\\[[0-9]{2}-[A-Z][a-z]{2}-[0-9]{4} [0-9]{2}:[0-9]{2}:[0-9]{2}\\]  ";

// Whether an extended regular expression of POSIX matches the whole text.
bool matches(const std::string &text, const std::string &pattern) {
  return testing::internal::RE::FullMatch(text, testing::internal::RE(pattern));
}

class LogTest : public testing::Test, protected psp::tests::Folder {
 protected:
  void TearDown() override { psp_term(); }
  // Starts the library with the console channels in files "out" and "err", the log in "log".
  void start_with_files() const {
    ASSERT_EQ(psp_init(), PSP_OKAY);
    ASSERT_EQ(psp_stdout_open(path("out").c_str()), PSP_OKAY);
    ASSERT_EQ(psp_stderr_open(path("err").c_str()), PSP_OKAY);
    ASSERT_EQ(psp_log_open(path("log").c_str()), PSP_OKAY);
  }
};

void expect_stamped(const std::string &text, const std::string &messages) {
  EXPECT_TRUE(matches(text, messages)) << testing::PrintToString(text);
}

std::string stamped(const std::string &message) { return kStamp + message + "\r\n"; }

TEST_F(LogTest, ConsoleTextWaitsForAFlushAndMessagesDoNot) {
  // Standard output is the file "out" here.
  const int kept = dup(1);
  const int file = open(path("out").c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
  dup2(file, 1);
  EXPECT_EQ(psp_init(), PSP_OKAY);
  EXPECT_EQ(psp_printf("%d\n", 5), 2);
  EXPECT_EQ(get("out"), "");
  psp_flush();
  EXPECT_EQ(get("out"), "5\r\n");
  EXPECT_EQ(psp_printf("text "), 5);
  EXPECT_EQ(psp_log("x=%d\n", 1), 4);
  EXPECT_EQ(get("out"), "5\r\ntext x=1\r\n");
  EXPECT_EQ(psp_printf("%1100d", 1), 1100);
  EXPECT_EQ(get("out").size(), 13u + 1024);
  psp_term();
  EXPECT_EQ(get("out").size(), 13u + 1100);
  dup2(kept, 1);
  close(kept);
  close(file);
}

TEST_F(LogTest, MessagesGoToTheirConsoleAndStampedToTheLog) {
  start_with_files();
  errno = 77;
  EXPECT_EQ(psp_log("x=%d\n", 1), 4);
  EXPECT_EQ(psp_log_err("y=%lld\n", 2LL), 4);
  const std::string text(3000, 'z');
  EXPECT_EQ(psp_log("%s\n", text.c_str()), 3001);
  EXPECT_EQ(psp_log("no line end"), 11);
  EXPECT_EQ(psp_log("cut%c off\n", 0), 3) << "a message ends at a zero byte";
  EXPECT_EQ(psp_log("%f\n", 1e30), 0) << "cannot be formatted";
  EXPECT_EQ(psp_log(nullptr), 0);
  EXPECT_EQ(psp_printf(nullptr), -1);
  EXPECT_EQ(errno, 77);
  EXPECT_EQ(get("out"), "x=1\r\n" + text + "\r\nno line endcut");
  EXPECT_EQ(get("err"), "y=2\r\n");
  expect_stamped(get("log"), stamped("x=1") + stamped("y=2") + stamped(text) + kStamp +
                                 "no line end" + kStamp + "cut");
}

TEST_F(LogTest, OutputsOfOneNameAreSharedWhateverTheCase) {
  start_with_files();
  EXPECT_EQ(psp_log("a\n"), 2);
  EXPECT_EQ(psp_log_open(path("LOG").c_str()), PSP_OKAY);
  EXPECT_FALSE(std::filesystem::exists(path("LOG")));
  EXPECT_EQ(psp_log_open(path("LOX").c_str()), PSP_OKAY);
  EXPECT_TRUE(std::filesystem::exists(path("LOX")));
  psp_log_close();
  psp_log("b\n");
  EXPECT_EQ(psp_log_open(""), PSP_OKAY);
  EXPECT_EQ(psp_log_open(nullptr), PSP_OKAY);
  psp_log("not logged\n");
  psp_log_close();
  psp_log_close();
  psp_log_close();
  psp_log("c\n");
  psp_log_close();
  psp_log("not logged\n");
  psp_log_close();
  expect_stamped(get("log"), stamped("a") + stamped("b") + stamped("c"));

  EXPECT_EQ(psp_log_create(path("l").c_str(), "og"), PSP_OKAY);
  EXPECT_EQ(get("log"), "") << "an existing file is emptied";
}

TEST_F(LogTest, TopOutputReceivesAndFailedPushesChangeNothing) {
  start_with_files();
  EXPECT_EQ(psp_stdout_open(path("second").c_str()), PSP_OKAY);
  EXPECT_EQ(psp_stdout_open(path("no/such/folder").c_str()), PSP_FAILED);
  EXPECT_EQ(psp_printf("two"), 3);
  psp_stdout_close();
  EXPECT_EQ(psp_printf("one"), 3);
  EXPECT_EQ(psp_stdout_open(""), PSP_OKAY);
  EXPECT_EQ(psp_printf("%d", 3), 0);
  EXPECT_EQ(psp_printf("%f", 1e30), 0);
  EXPECT_EQ(psp_log("logged\n"), 0);
  psp_stdout_close();
  EXPECT_EQ(psp_printf("%f", 1e30), -1);
  EXPECT_EQ(psp_printfErr("%s", "error"), 5);
  psp_flushErr();
  psp_log_flush();
  EXPECT_EQ(get("second"), "two");
  EXPECT_EQ(get("out"), "one");
  EXPECT_EQ(get("err"), "error");
  expect_stamped(get("log"), stamped("logged"));
  for (int pops = 0; pops < 5; ++pops) psp_stdout_close();
  EXPECT_EQ(psp_printf("nowhere"), 0);
}

TEST_F(LogTest, ChunkIsOneMessage) {
  start_with_files();
  psp_logChunk *chunk = psp_log_chunk_init();
  psp_log_chunk(chunk, "a");
  psp_log_chunk(chunk, "%f", 1e30);
  psp_log_chunk(chunk, nullptr);
  psp_log_chunk(chunk, "b%d", 1);
  EXPECT_EQ(get("out"), "");
  psp_log_chunk_end(chunk, "%s\n", std::string(2000, 'c').c_str());
  psp_log_chunk_end(psp_log_chunk_init(), nullptr);
  psp_log_chunk(nullptr, "x");
  psp_log_chunk_end(nullptr, "x");
  EXPECT_EQ(get("out"), "ab1" + std::string(2000, 'c') + "\r\n");
  expect_stamped(get("log"), stamped("ab1" + std::string(2000, 'c')));
}

TEST_F(LogTest, MessagesOfManyThreadsComeOutWhole) {
  constexpr int kThreads = 4;
  constexpr int kMessages = 200;
  start_with_files();
  psp::tests::in_threads(kThreads, [&](int thread) {
    const std::string long_text(600, static_cast<char>('a' + thread));
    for (int message = 0; message < kMessages; ++message) {
      psp_log("<%d %d %s>\n", thread, message, message % 8 == 0 ? long_text.c_str() : "text");
      psp_printf("<p %d>\n", message);
      psp_printfErr("<e %d>\n", message);
      if (message % 16 == 0) psp_log_flush();
    }
  });
  psp_log_flush();
  const auto count_lines = [this](const char *file, const std::string &line) {
    std::istringstream lines(get(file));
    const testing::internal::RE whole("(" + line + ")\r");
    int count = 0;
    for (std::string text; std::getline(lines, text); ++count) {
      if (!testing::internal::RE::FullMatch(text, whole)) return -1;
    }
    return count;
  };
  const std::string message = "<[0-3] [0-9]+ (text|(a|b|c|d){600})>";
  EXPECT_EQ(count_lines("log", kStamp + message), kThreads * kMessages);
  EXPECT_EQ(count_lines("out", message + "|<p [0-9]+>"), 2 * kThreads * kMessages);
  EXPECT_EQ(count_lines("err", "<e [0-9]+>"), kThreads * kMessages);
}

TEST_F(LogTest, MessagesOutsideTheLifeGoToTheCRuntime) {
  EXPECT_EQ(psp_init(), PSP_OKAY);
  psp_logChunk *chunk = psp_log_chunk_init();
  psp_log_chunk(chunk, "chunk ");
  psp_term();
  testing::internal::CaptureStdout();
  testing::internal::CaptureStderr();
  EXPECT_EQ(psp_log("log %d ", 1), 6);
  EXPECT_EQ(psp_printf("text "), 5);
  EXPECT_EQ(psp_printf(nullptr), -1);
  psp_log_chunk_end(chunk, "end");
  EXPECT_EQ(psp_log_err("error "), 6);
  EXPECT_EQ(psp_printfErr("%s", "text"), 4);
  psp_flush();
  psp_flushErr();
  psp_log_flush();
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "log 1 text chunk end");
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "error text");
  EXPECT_EQ(psp_log_chunk_init(), nullptr);
  EXPECT_EQ(psp_stdout_open("x"), PSP_FAILED);
  EXPECT_EQ(psp_stderr_open(""), PSP_FAILED);
  EXPECT_EQ(psp_log_open(path("log").c_str()), PSP_FAILED);
  EXPECT_EQ(psp_log_create(path("l").c_str(), "og"), PSP_OKAY);
  EXPECT_FALSE(std::filesystem::exists(path("log")));
  psp_log_close();
}

}  // namespace
