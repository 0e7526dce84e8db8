// Runs a target without the fuzzing engine, with any compiler: once on each file of a folder, for
// what was found once stays found, and then on so many inputs that are made of these files at
// random. They are the same in every run; PSP_ROUND chooses the one to begin with.
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <random>
#include <vector>

#include "fuzz.h"

namespace {

// Without spare room, so that a sanitizer sees the input's end.
void run(const std::string &bytes) {
  const std::vector<uint8_t> exact(bytes.begin(), bytes.end());
  LLVMFuzzerTestOneInput(exact.data(), exact.size());
}

// The beginning of one file and then pieces of any of them and of noise, some bytes changed.
std::string mixed(const std::vector<std::string> &files, uint32_t round) {
  constexpr size_t kMost = 20'000;
  std::mt19937 random(round);
  const auto below = [&random](size_t limit) { return random() % std::max<size_t>(limit, 1); };
  const auto piece = [&](size_t from) {
    const std::string &file = files[below(files.size())];
    from = std::min(from, file.size());
    return file.substr(from, 1 + below(file.size() - from));
  };
  std::string input = piece(0);
  for (size_t count = below(round % 8 == 0 ? 100 : 5); count > 0 && input.size() < kMost; --count) {
    std::string more = piece(below(64));
    if (below(3) == 0) std::generate(more.begin(), more.end(), std::ref(random));
    input.insert(below(2) != 0 ? input.size() : below(input.size()), more);
  }
  for (size_t count = below(6); count > 0; --count) {
    input[below(input.size())] = static_cast<char>(below(2) != 0 ? random() : below(16));
  }
  return input;
}

}  // namespace

int main(int count, char **arguments) {
  if (count != 3) return 2;
  std::vector<std::string> names, files;
  for (const auto &entry : std::filesystem::directory_iterator(arguments[1])) {
    names.push_back(entry.path().string());
  }
  std::sort(names.begin(), names.end());
  for (const std::string &name : names) {
    std::printf("%s\n", name.c_str());
    std::fflush(stdout);
    files.push_back(fuzz::read_file(name));
    run(files.back());
  }
  const char *chosen = std::getenv("PSP_ROUND");
  const auto first = static_cast<uint32_t>(chosen != nullptr ? std::atoi(chosen) : 0);
  const auto rounds = static_cast<uint32_t>(std::atoi(arguments[2]));
  for (uint32_t round = first; round < first + rounds && !files.empty(); ++round) {
    if (round % 100 == 0 || chosen != nullptr) std::printf("round %u\n", round);
    std::fflush(stdout);
    run(mixed(files, round));
  }
  std::printf("%zu files, %u rounds\n", names.size(), rounds);
  return names.empty() ? 1 : 0;
}
