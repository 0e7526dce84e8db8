// What the fuzz targets share. A target is one file with fuzz::run, which takes an input apart,
// makes calls with it and states what must hold; fuzz.cpp hands it the inputs, one after the other,
// in a library that is started once.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <string_view>

namespace fuzz {

// An input, taken from the front. Behind its end stand zeros and empty texts, so that every input
// says something and a longer one says the same and more.
class Input {
 public:
  Input(const uint8_t *bytes, size_t count) : bytes_(bytes), count_(count) {}

  bool empty() const { return count_ == 0; }
  uint8_t byte() { return number<uint8_t>(); }

  // A number from 0 to limit - 1, from one byte where that is enough. The limit is at most 65536.
  uint32_t below(uint32_t limit) { return (limit <= 256 ? byte() : number<uint16_t>()) % limit; }

  // The bytes of a number, in the order of the machine.
  template <class Number>
  Number number() {
    Number number = {};
    const size_t taken = count_ < sizeof number ? count_ : sizeof number;
    if (taken != 0) std::memcpy(&number, bytes_, taken);
    skip(taken);
    return number;
  }

  // The bytes up to a zero byte, which is skipped, at most so many.
  std::string text(size_t most) {
    std::string text;
    while (!empty() && text.size() < most && *bytes_ != 0) text += static_cast<char>(byte());
    if (!empty() && *bytes_ == 0) skip(1);
    return text;
  }

  std::string rest() {
    std::string rest(reinterpret_cast<const char *>(bytes_), count_);
    skip(count_);
    return rest;
  }

 private:
  void skip(size_t count) {
    bytes_ += count;
    count_ -= count;
  }

  const uint8_t *bytes_;
  size_t count_;
};

// The target's own.
void run(Input input);

// Ends the process, with what does not hold, when it does not hold.
void expect(bool holds, const char *what, const char *file, int line);

// A folder of this process, in memory where there is such a place, removed at its end.
const std::string &folder();
void write_file(const std::string &name, std::string_view bytes);
std::string read_file(const std::string &name);

}  // namespace fuzz

#define FUZZ_EXPECT(condition) fuzz::expect((condition), #condition, __FILE__, __LINE__)

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *bytes, size_t count);
