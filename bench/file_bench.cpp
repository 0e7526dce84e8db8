// File handles beside the system's own calls, on a file that lies in the page cache.
//
// The ratio of an open is the price of the sharing modes: the peer's open lets everybody in. A peer
// that takes a whole-file lock, which is the least that keeps anybody out, is told beside it.
#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <cstdlib>
#include <string>
#include <vector>

#include "bench.h"
#include "psp.h"

namespace {

using benchmark::State;
using psp_bench::add_case;

constexpr uint32_t kPieceBytes = 4096;
constexpr int kPieces = 256;

// A file of kPieces pieces that lives as long as the run.
class File {
 public:
  File() : name_("/tmp/psp-bench-XXXXXX"), descriptor_(mkstemp(name_.data())) {
    std::vector<char> piece(kPieceBytes);
    for (int index = 0; index < kPieces; ++index) {
      piece.assign(kPieceBytes, static_cast<char>(index));
      if (pwrite(descriptor_, piece.data(), kPieceBytes, offset(index)) != kPieceBytes) abort();
    }
  }
  ~File() { unlink(name_.c_str()); }

  const char *name() const { return name_.c_str(); }
  int descriptor() const { return descriptor_; }
  static off_t offset(int index) { return off_t{index} * kPieceBytes; }

 private:
  std::string name_;
  int descriptor_;
};

const File &file() {
  static const File the_file;
  return the_file;
}

// Goes through the pieces but the first, round and round.
template <class Transfer>
uint64_t transfer_pieces(State &state, Transfer transfer) {
  std::vector<char> piece(kPieceBytes, 'p');
  int index = 0;
  for (auto _ : state) {
    index = index % (kPieces - 1) + 1;
    if (transfer(File::offset(index), piece.data()) != kPieceBytes) state.SkipWithError("failed");
  }
  return piece[0] == static_cast<char>(index) || piece[0] == 'p';
}

template <class Transfer>
auto ours(Transfer transfer) {
  return [transfer](State &state) {
    PSP_FH handle = psp_fileOpen(file().name(), PSP_OPEN_READWRITE, 0);
    const uint64_t result = transfer_pieces(state, [&](off_t offset, char *piece) {
      return static_cast<ssize_t>(transfer(handle, offset, piece, kPieceBytes));
    });
    psp_fileClose(handle);
    return result;
  };
}

template <class Transfer>
auto theirs(Transfer transfer) {
  return [transfer](State &state) {
    return transfer_pieces(state, [&](off_t offset, char *piece) {
      return transfer(file().descriptor(), piece, kPieceBytes, offset);
    });
  };
}

auto our_open(uint32_t flags, uint16_t mode) {
  return [flags, mode](State &state) {
    for (auto _ : state) {
      PSP_FH handle = psp_fileOpen(file().name(), flags, mode);
      if (handle == nullptr) state.SkipWithError("failed");
      psp_fileClose(handle);
    }
    return uint64_t{0};
  };
}

auto their_open(int flags, int lock) {
  return [flags, lock](State &state) {
    for (auto _ : state) {
      const int descriptor = open(file().name(), flags | O_CLOEXEC);
      if (lock != 0 && flock(descriptor, lock | LOCK_NB) != 0) state.SkipWithError("failed");
      close(descriptor);
    }
    return uint64_t{0};
  };
}

void add_file_cases() {
  add_case("files/read 4 KiB at an offset",
           {{"psp", ours(psp_fileSeekRead)}, {"pread", theirs(pread), 1.05}});
  add_case("files/write 4 KiB at an offset",
           {{"psp", ours(psp_fileSeekWrite)}, {"pwrite", theirs(pwrite), 1.05}});
  add_case("files/open and close, reading and writing",
           {{"psp", our_open(PSP_OPEN_READWRITE, 0)},
            {"open, close", their_open(O_RDWR, 0), 1.5},
            {"open, flock, close", their_open(O_RDWR, LOCK_SH)}});
  add_case("files/open and close, reading",
           {{"psp", our_open(PSP_OPEN_READ, 0)},
            {"open, close", their_open(O_RDONLY, 0), 1.5},
            {"open, flock, close", their_open(O_RDONLY, LOCK_SH)}});
  add_case("files/open and close, reading and writing alone",
           {{"psp", our_open(PSP_OPEN_READWRITE, PSP_FILE_DENY_READ | PSP_FILE_DENY_WRITE)},
            {"open, close", their_open(O_RDWR, 0)},
            {"open, flock, close", their_open(O_RDWR, LOCK_EX)}});
}

const psp_bench::Registration registration(add_file_cases);

}  // namespace
