// The way of an input into a target, and the files of the targets.
//
// The library is started at the first input. It ends with the process, unless a target stops it and
// starts it again, to begin anew.
#include "fuzz.h"

#include <cstdio>
#include <cstdlib>
#include <filesystem>

#include "psp.h"

namespace fuzz {

namespace {

// Removed when the process exits or something does not hold. A folder that a crash leaves goes with
// the TMPDIR that `./dev fuzz` makes and removes.
struct Folder {
  std::string name;

  void make() {
    const char *chosen = std::getenv("TMPDIR");
    const bool in_memory = std::filesystem::is_directory("/dev/shm");
    name = chosen != nullptr ? chosen : in_memory ? "/dev/shm" : "/tmp";
    name += "/psp_fuzz_XXXXXX";
    if (mkdtemp(name.data()) == nullptr) name.clear();
    FUZZ_EXPECT(!name.empty());
  }
  void remove() {
    std::error_code ignored;
    if (!name.empty()) std::filesystem::remove_all(name, ignored);
    name.clear();
  }
  ~Folder() { remove(); }
};

Folder own_folder;

}  // namespace

void expect(bool holds, const char *what, const char *file, int line) {
  if (holds) return;
  std::fprintf(stderr, "%s:%d: does not hold: %s\n", file, line, what);
  own_folder.remove();
  std::abort();
}

const std::string &folder() {
  if (own_folder.name.empty()) own_folder.make();
  return own_folder.name;
}

void write_file(const std::string &name, std::string_view bytes) {
  std::FILE *file = std::fopen(name.c_str(), "wb");
  FUZZ_EXPECT(file != nullptr);
  FUZZ_EXPECT(std::fwrite(bytes.data(), 1, bytes.size(), file) == bytes.size());
  FUZZ_EXPECT(std::fclose(file) == 0);
}

std::string read_file(const std::string &name) {
  std::FILE *file = std::fopen(name.c_str(), "rb");
  FUZZ_EXPECT(file != nullptr);
  std::string bytes;
  char block[4096];
  for (size_t count; (count = std::fread(block, 1, sizeof block, file)) != 0;) {
    bytes.append(block, count);
  }
  FUZZ_EXPECT(std::fclose(file) == 0);
  return bytes;
}

}  // namespace fuzz

int LLVMFuzzerTestOneInput(const uint8_t *bytes, size_t count) {
  static const psp_status started = psp_init();
  FUZZ_EXPECT(started == PSP_OKAY);
  fuzz::run({bytes, count});
  return 0;
}
