// The in-memory store beside what a user would pick instead: plain memory, SQLite's in-memory file
// system, a file of memfd, and tmpfs.
#include <dirent.h>
#include <fcntl.h>
#include <sqlite3.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <memory>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "bench.h"
#include "psp.h"

namespace {

using benchmark::State;
using psp_bench::add_case;

constexpr uint32_t kFileBytes = 64u << 20;
constexpr int kPlaces = 4096;  // offsets in turn
constexpr uint16_t kMemory = PSP_FILE_MEMORY;

// Random offsets at which a piece of that size fits, multiples of its size.
std::vector<uint32_t> places(uint32_t piece) {
  std::mt19937 random(7);
  std::vector<uint32_t> offsets(kPlaces);
  for (uint32_t &offset : offsets) {
    offset = static_cast<uint32_t>(random() % (kFileBytes / piece)) * piece;
  }
  return offsets;
}

// ---- Files of kFileBytes ------------------------------------------------------------------------

PSP_FH fill_ours(const char *name) {
  const std::vector<char> mebibyte(1 << 20, 'm');
  PSP_FH file = psp_fileOpen(name, PSP_OPEN_READWRITE | PSP_OPEN_CREATE, kMemory);
  for (uint32_t offset = 0; offset < kFileBytes; offset += 1 << 20) {
    if (psp_fileSeekWrite(file, offset, mebibyte.data(), 1 << 20) != 1 << 20) abort();
  }
  return file;
}

struct Ours {
  PSP_FH file = fill_ours("\\bench\\large");
  bool read(uint32_t offset, char *piece, uint32_t count) {
    return psp_fileSeekRead(file, offset, piece, count) == static_cast<int32_t>(count);
  }
  bool write(uint32_t offset, const char *piece, uint32_t count) {
    return psp_fileSeekWrite(file, offset, piece, count) == static_cast<int32_t>(count);
  }
};

struct Memory {
  std::vector<char> bytes = std::vector<char>(kFileBytes, 'm');
  bool read(uint32_t offset, char *piece, uint32_t count) {
    memcpy(piece, bytes.data() + offset, count);
    benchmark::ClobberMemory();
    return true;
  }
  bool write(uint32_t offset, const char *piece, uint32_t count) {
    memcpy(bytes.data() + offset, piece, count);
    benchmark::ClobberMemory();
    return true;
  }
};

struct SqliteMemory {
  SqliteMemory() {
    sqlite3_initialize();
    sqlite3_vfs *system = sqlite3_vfs_find("memdb");
    storage = std::make_unique<char[]>(static_cast<size_t>(system->szOsFile));
    file = reinterpret_cast<sqlite3_file *>(storage.get());
    int flags = SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_MAIN_DB;
    if (system->xOpen(system, "/bench", file, flags, &flags) != SQLITE_OK) abort();
    const std::vector<char> mebibyte(1 << 20, 'm');
    for (uint32_t offset = 0; offset < kFileBytes; offset += 1 << 20) {
      if (!write(offset, mebibyte.data(), 1 << 20)) abort();
    }
  }
  bool read(uint32_t offset, char *piece, uint32_t count) {
    return file->pMethods->xRead(file, piece, static_cast<int>(count), offset) == SQLITE_OK;
  }
  bool write(uint32_t offset, const char *piece, uint32_t count) {
    return file->pMethods->xWrite(file, piece, static_cast<int>(count), offset) == SQLITE_OK;
  }
  std::unique_ptr<char[]> storage;
  sqlite3_file *file;
};

struct MemoryFile {
  MemoryFile() : descriptor(memfd_create("bench", MFD_CLOEXEC)) {
    const std::vector<char> mebibyte(1 << 20, 'm');
    for (uint32_t offset = 0; offset < kFileBytes; offset += 1 << 20) {
      if (!write(offset, mebibyte.data(), 1 << 20)) abort();
    }
  }
  bool read(uint32_t offset, char *piece, uint32_t count) {
    return pread(descriptor, piece, count, offset) == static_cast<ssize_t>(count);
  }
  bool write(uint32_t offset, const char *piece, uint32_t count) {
    return pwrite(descriptor, piece, count, offset) == static_cast<ssize_t>(count);
  }
  int descriptor;
};

enum class Direction { kRead, kWrite };

// The digest tells that every transfer worked.
template <class File>
auto transfer(Direction direction, uint32_t piece_bytes) {
  return [=](State &state) {
    static File file;
    const std::vector<uint32_t> offsets = places(piece_bytes);
    std::vector<char> piece(piece_bytes, direction == Direction::kWrite ? 'w' : 'm');
    size_t turn = 0;
    bool works = true;
    for (auto _ : state) {
      const uint32_t offset = offsets[turn++ % kPlaces];
      works &= direction == Direction::kRead ? file.read(offset, piece.data(), piece_bytes)
                                             : file.write(offset, piece.data(), piece_bytes);
    }
    works &= file.read(offsets[0], piece.data(), piece_bytes);
    if (!works) state.SkipWithError("failed");
    return uint64_t{works};
  };
}

// Two threads that read a file each, and one that reads as much.
auto read_two_files(int threads) {
  return [threads](State &state) {
    static PSP_FH files[2] = {fill_ours("\\bench\\one"), fill_ours("\\bench\\two")};
    static const std::vector<uint32_t> offsets = places(4096);
    const auto work = [](PSP_FH file) {
      std::vector<char> piece(4096);
      for (int round = 0; round < 4; ++round) {
        for (const uint32_t offset : offsets) psp_fileSeekRead(file, offset, piece.data(), 4096);
      }
    };
    for (auto _ : state) {
      std::thread other;
      if (threads == 2) other = std::thread(work, files[1]);
      work(files[0]);
      if (threads == 2) other.join();
      if (threads == 1) work(files[1]);
    }
    return uint64_t{0};
  };
}

// ---- Names --------------------------------------------------------------------------------------

// Folders of that many empty files, here and on tmpfs, that live as long as the run.
struct Folders {
  explicit Folders(int count) : names(count) {
    theirs = "/dev/shm/psp-bench-" + std::to_string(getpid()) + "-" + std::to_string(count);
    std::filesystem::create_directory(theirs);
    ours = "\\bench" + std::to_string(count);
    for (int index = 0; index < count; ++index) {
      names[index] = "table_" + std::to_string(index) + ".dat";
      psp_fileClose(
          psp_fileOpen(our_path(index).c_str(), PSP_OPEN_WRITE | PSP_OPEN_CREATE, kMemory));
      close(open(their_path(index).c_str(), O_CREAT | O_WRONLY | O_CLOEXEC, 0600));
    }
  }
  ~Folders() { std::filesystem::remove_all(theirs); }

  std::string our_path(size_t index) const { return ours + "\\" + names[index]; }
  std::string their_path(size_t index) const { return theirs + "/" + names[index]; }

  std::vector<std::string> names;
  std::string ours;
  std::string theirs;
};

const Folders &folders(int count) {
  static std::vector<std::unique_ptr<Folders>> all;
  for (const auto &one : all) {
    if (one->names.size() == static_cast<size_t>(count)) return *one;
  }
  return *all.emplace_back(std::make_unique<Folders>(count));
}

// Calls act with a random one of the paths.
template <class Act>
auto with_paths(int count, std::string (Folders::*path)(size_t) const, Act act) {
  return [=](State &state) {
    const Folders &all = folders(count);
    std::mt19937 random(3);
    std::vector<std::string> paths(kPlaces);
    for (std::string &one : paths) one = (all.*path)(random() % all.names.size());
    size_t turn = 0;
    for (auto _ : state) {
      if (!act(paths[turn++ % kPlaces])) state.SkipWithError("failed");
    }
    return uint64_t{0};
  };
}

bool open_ours(const std::string &path) {
  PSP_FH file = psp_fileOpen(path.c_str(), PSP_OPEN_READWRITE, kMemory);
  psp_fileClose(file);
  return file != nullptr;
}

bool open_theirs(const std::string &path) {
  return close(open(path.c_str(), O_RDWR | O_CLOEXEC)) == 0;
}

bool create_ours(std::string path) {
  path += "x";
  PSP_FH file = psp_fileOpen(path.c_str(), PSP_OPEN_READWRITE | PSP_OPEN_CREATE, kMemory);
  psp_fileClose(file);
  return psp_fileRemoveEx(path.c_str(), kMemory) == PSP_OKAY;
}

bool create_theirs(std::string path) {
  path += "x";
  close(open(path.c_str(), O_CREAT | O_RDWR | O_CLOEXEC, 0600));
  return unlink(path.c_str()) == 0;
}

// The digest is the bytes of all names.
uint64_t list_ours(State &state) {
  const Folders &all = folders(10'000);
  uint64_t bytes = 0;
  for (auto _ : state) {
    bytes = 0;
    uint32_t flag = 0;
    psp_pathIter *iterator = psp_pathOpenEx(all.ours.c_str(), kMemory, "*");
    while (const char *name = psp_pathNext(iterator, &flag)) bytes += strlen(name);
    psp_pathClose(iterator);
  }
  return bytes;
}

uint64_t list_theirs(State &state) {
  const Folders &all = folders(10'000);
  uint64_t bytes = 0;
  for (auto _ : state) {
    bytes = 0;
    DIR *stream = opendir(all.theirs.c_str());
    while (const dirent *entry = readdir(stream)) {
      if (entry->d_name[0] != '.') bytes += strlen(entry->d_name);
    }
    closedir(stream);
  }
  return bytes;
}

void add_transfer(const char *what, Direction direction, uint32_t bytes, double sqlite,
                  double memory) {
  const std::string verb = direction == Direction::kRead ? "read " : "write ";
  add_case("store/" + verb + what + " at random",
           {{"psp", transfer<Ours>(direction, bytes)},
            {"SQLite memdb", transfer<SqliteMemory>(direction, bytes), sqlite},
            {"memcpy", transfer<Memory>(direction, bytes), memory}});
}

void add_store_cases() {
  for (const Direction direction : {Direction::kRead, Direction::kWrite}) {
    add_transfer("4 KiB", direction, 4096, 1.1, 1.2);
    add_transfer("1 MiB", direction, 1 << 20, 0, 1.05);
    add_case(std::string("store/") + (direction == Direction::kRead ? "read" : "write") +
                 " 16 bytes at random",
             {{"psp", transfer<Ours>(direction, 16)},
              {"memfd", transfer<MemoryFile>(direction, 16), 0.3}});
  }
  add_case("store/two threads read a file each",
           {{"psp", read_two_files(2)}, {"one thread, both files", read_two_files(1), 0.6}});
  for (const int count : {100, 1'000, 10'000, 100'000}) {
    const std::string among = " among " + std::to_string(count) + " names";
    const double open_aim = count == 100'000 ? 0.6 : 0;
    const double create_aim = count == 100'000 ? 0.3 : 0;
    add_case("store/open and close" + among,
             {{"psp", with_paths(count, &Folders::our_path, open_ours)},
              {"tmpfs", with_paths(count, &Folders::their_path, open_theirs), open_aim}});
    add_case("store/create and remove" + among,
             {{"psp", with_paths(count, &Folders::our_path, create_ours)},
              {"tmpfs", with_paths(count, &Folders::their_path, create_theirs), create_aim}});
  }
  add_case("store/list 10,000 names", {{"psp", list_ours}, {"readdir on tmpfs", list_theirs, 1.0}});
}

const psp_bench::Registration registration(add_store_cases);

}  // namespace
