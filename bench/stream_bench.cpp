// Text streams against the C library's, with the same block of 1024 bytes, and log messages against
// spdlog.
//
// Lines are of mixed lengths, as configuration and log files have them; one operation is a whole
// file of kLines lines in the page cache. psp also turns each line feed into carriage return and
// line feed and back, the C library does not; digests are taken without the difference. The
// process has had a second thread, as that of a server has: the C library's streams lock. A message
// is written, flushed and made durable before the next, as psp_log does.
#include <fcntl.h>
#include <spdlog/sinks/basic_file_sink.h>
#include <spdlog/spdlog.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "bench.h"
#include "psp.h"

namespace psp_bench {
namespace {

constexpr size_t kLines = 2000;
constexpr size_t kBlockBytes = 1024;
constexpr uint32_t kSeed = 20240611;

const std::vector<std::string> &lines() {
  static const std::vector<std::string> all = [] {
    std::mt19937 random(kSeed);
    std::vector<std::string> result(kLines);
    for (std::string &line : result) {
      line.resize(random() % 90);
      for (char &letter : line) letter = static_cast<char>(' ' + random() % 95);
      line += '\n';
    }
    return result;
  }();
  return all;
}

// A folder for the files of one run, on tmpfs or where temporary files lie; removed at the end.
class Folder {
 public:
  explicit Folder(std::filesystem::path parent) {
    if (!std::filesystem::exists(parent)) parent = std::filesystem::temp_directory_path();
    std::string name = parent / "psp_bench_XXXXXX";
    if (mkdtemp(name.data()) != nullptr) path_ = name;
  }
  ~Folder() { std::filesystem::remove_all(path_); }
  std::string file(const std::string &name) const { return path_ / name; }

 private:
  std::filesystem::path path_;
};

const Folder &memory() {
  static const Folder folder("/dev/shm");
  return folder;
}

const Folder &disk() {
  static const Folder folder(std::filesystem::temp_directory_path());
  return folder;
}

std::string content(const std::string &name) {
  std::ifstream file(name, std::ios::binary);
  std::string bytes{std::istreambuf_iterator<char>(file), {}};
  std::erase(bytes, '\r');
  return bytes;
}

uint64_t digest_of(const std::string &text) { return digest(text.data(), text.size()); }

std::string input() {
  static const std::string name = [] {
    std::thread([] {}).join();
    std::string path = memory().file("input");
    std::ofstream file(path, std::ios::binary);
    for (const std::string &line : lines()) file << line;
    return path;
  }();
  return name;
}

struct CFile {
  CFile(const std::string &name, const char *mode) : file(std::fopen(name.c_str(), mode)) {
    std::setvbuf(file, buffer, _IOFBF, sizeof buffer);
  }
  ~CFile() { std::fclose(file); }
  std::FILE *file;
  char buffer[kBlockBytes];
};

struct Stream {
  Stream(const std::string &name, const char *mode)
      : stream(psp_fopenEx(name.c_str(), mode, 1, PSP_FILE_NOSYNC)) {}
  ~Stream() { psp_fclose(stream); }
  psp_stream *stream;
};

// ---- Reading ------------------------------------------------------------------------------------

// What one reading of the input gave: the characters, the lines, and the last line.
struct Reading {
  uint64_t sum = 0;
  uint64_t count = 0;
  char line[128] = {};
  uint64_t result() const { return sum + count + digest_of(line); }
};

uint64_t psp_lines(benchmark::State &state) {
  const Stream in(input(), "r");
  Reading reading;
  for (auto _ : state) {
    reading = {};
    psp_fseek(in.stream, 0, PSP_SEEK_START);
    while (psp_fgets(reading.line, sizeof reading.line, in.stream) != nullptr) {
      ++reading.count;
      reading.sum += static_cast<unsigned char>(reading.line[0]);
    }
  }
  return reading.result();
}

uint64_t c_lines(benchmark::State &state) {
  const CFile in(input(), "r");
  Reading reading;
  for (auto _ : state) {
    reading = {};
    std::rewind(in.file);
    while (std::fgets(reading.line, sizeof reading.line, in.file) != nullptr) {
      ++reading.count;
      reading.sum += static_cast<unsigned char>(reading.line[0]);
    }
  }
  return reading.result();
}

uint64_t psp_characters(benchmark::State &state) {
  const Stream in(input(), "r");
  Reading reading;
  for (auto _ : state) {
    reading = {};
    psp_fseek(in.stream, 0, PSP_SEEK_START);
    uint64_t sum = 0, count = 0;  // in registers, or adding up takes longer than reading
    for (int32_t c = psp_fgetc(in.stream); c != -1; c = psp_fgetc(in.stream)) {
      sum += static_cast<unsigned char>(c);
      ++count;
    }
    reading.sum = sum;
    reading.count = count;
  }
  return reading.result();
}

uint64_t c_characters(benchmark::State &state) {
  const CFile in(input(), "r");
  Reading reading;
  for (auto _ : state) {
    reading = {};
    std::rewind(in.file);
    uint64_t sum = 0, count = 0;  // in registers, or adding up takes longer than reading
    for (int c = std::fgetc(in.file); c != EOF; c = std::fgetc(in.file)) {
      sum += static_cast<unsigned char>(c);
      ++count;
    }
    reading.sum = sum;
    reading.count = count;
  }
  return reading.result();
}

// ---- Writing ------------------------------------------------------------------------------------

uint64_t psp_write(benchmark::State &state) {
  const std::string name = memory().file("psp");
  const Stream out(name, "w");
  for (auto _ : state) {
    psp_fseek(out.stream, 0, PSP_SEEK_START);
    for (const std::string &line : lines()) psp_fputs(line.c_str(), out.stream);
    psp_fflush(out.stream);
  }
  return digest_of(content(name));
}

uint64_t c_write(benchmark::State &state) {
  const std::string name = memory().file("c");
  const CFile out(name, "w");
  for (auto _ : state) {
    std::rewind(out.file);
    for (const std::string &line : lines()) std::fputs(line.c_str(), out.file);
    std::fflush(out.file);
  }
  return digest_of(content(name));
}

uint64_t psp_format(benchmark::State &state) {
  const std::string name = memory().file("psp");
  const Stream out(name, "w");
  for (auto _ : state) {
    psp_fseek(out.stream, 0, PSP_SEEK_START);
    uint32_t number = 0;
    for (const std::string &line : lines()) {
      psp_fprintf(out.stream, "%u: %s", number++, line.c_str());
    }
    psp_fflush(out.stream);
  }
  return digest_of(content(name));
}

uint64_t c_format(benchmark::State &state) {
  const std::string name = memory().file("c");
  const CFile out(name, "w");
  for (auto _ : state) {
    std::rewind(out.file);
    uint32_t number = 0;
    for (const std::string &line : lines()) {
      std::fprintf(out.file, "%u: %s", number++, line.c_str());
    }
    std::fflush(out.file);
  }
  return digest_of(content(name));
}

// ---- Messages -----------------------------------------------------------------------------------

constexpr char kPlace[] = "/var/lib/database/segment-0000000001.dat";

// The last message of a log, without its stamp.
uint64_t digest_of_last_message(const std::string &name) {
  const std::string log = content(name);
  const size_t stamp = log.rfind("]  ");
  return stamp != std::string::npos ? digest_of(log.substr(stamp)) : 0;
}

uint64_t psp_messages(benchmark::State &state, const Folder &folder) {
  const std::string name = folder.file("psp.log");
  if (psp_stdout_open("") != PSP_OKAY || psp_log_open(name.c_str()) != PSP_OKAY) {
    state.SkipWithError("the log cannot be opened");
    return 0;
  }
  uint32_t number = 0;
  for (auto _ : state) psp_log("checkpoint %u: %s, %d pages\n", number++, kPlace, 128);
  psp_log_close();
  psp_stdout_close();
  return digest_of_last_message(name);
}

uint64_t spdlog_messages(benchmark::State &state, const Folder &folder) {
  const std::string name = folder.file("spdlog.log");
  auto sink = std::make_shared<spdlog::sinks::basic_file_sink_mt>(name, true);
  spdlog::logger logger("log", sink);
  logger.set_pattern("[%d-%b-%Y %H:%M:%S]  %v");
  const int file = open(name.c_str(), O_WRONLY | O_CLOEXEC);
  uint32_t number = 0;
  for (auto _ : state) {
    logger.info("checkpoint {}: {}, {} pages", number++, kPlace, 128);
    logger.flush();
    fsync(file);
  }
  close(file);
  return digest_of_last_message(name);
}

const Registration registration([] {
  add_case("stream/read lines", {{"psp", psp_lines}, {"fgets", c_lines, 0.8}});
  add_case("stream/read characters", {{"psp", psp_characters}, {"fgetc", c_characters, 0.5}});
  add_case("stream/write lines", {{"psp", psp_write}, {"fputs", c_write, 0.8}});
  add_case("stream/write formatted lines", {{"psp", psp_format}, {"fprintf", c_format}});
  const auto log_case = [](const char *name, const Folder &(*folder)(), double at_most) {
    add_case(name, {{"psp", [folder](auto &state) { return psp_messages(state, folder()); }},
                    {"spdlog", [folder](auto &state) { return spdlog_messages(state, folder()); },
                     at_most}});
  };
  log_case("log/message on disk", disk, 1.05);
  log_case("log/message on tmpfs", memory, 1.0);
});

}  // namespace
}  // namespace psp_bench
