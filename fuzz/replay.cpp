// Runs a target once on each file of the folders given: what was found once stays found, with any
// compiler and without the fuzzing engine.
#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <vector>

#include "fuzz.h"

int main(int count, char **folders) {
  std::vector<std::string> names;
  for (int index = 1; index < count; ++index) {
    for (const auto &entry : std::filesystem::directory_iterator(folders[index])) {
      names.push_back(entry.path().string());
    }
  }
  std::sort(names.begin(), names.end());
  for (const std::string &name : names) {
    std::printf("%s\n", name.c_str());
    std::fflush(stdout);
    // Without spare room, so that a sanitizer sees the input's end.
    const std::string bytes = fuzz::read_file(name);
    const std::vector<uint8_t> exact(bytes.begin(), bytes.end());
    LLVMFuzzerTestOneInput(exact.data(), exact.size());
  }
  std::printf("%zu inputs\n", names.size());
  return names.empty() ? 1 : 0;
}
