// The memory of 100,000 files in the in-memory store, empty and of 100 bytes, with tmpfs's beside
// it. What tmpfs takes is read from the kernel's count of its own memory, which others change, too:
// the figure is worth something on a quiet machine.
#include <fcntl.h>
#include <malloc.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <string>

#include "psp.h"

namespace {

constexpr int kFiles = 100'000;

double heap_bytes() {
  const struct mallinfo2 heap = mallinfo2();
  return static_cast<double>(heap.uordblks + heap.hblkhd);
}

// Pages of tmpfs, and the kernel's records of files and names.
double kernel_bytes() {
  std::ifstream file("/proc/meminfo");
  std::string name;
  std::string rest;
  double kib = 0;
  double sum = 0;
  while (file >> name >> kib && std::getline(file, rest)) {
    if (name == "Shmem:" || name == "Slab:") sum += kib;
  }
  return sum * 1024;
}

std::string name_of(const char *folder, int number) {
  return folder + std::to_string(number) + ".dat";
}

double store_bytes_per_file(const char *folder, uint32_t content) {
  static const char bytes[100] = {};
  const double before = heap_bytes();
  for (int number = 0; number < kFiles; ++number) {
    PSP_FH file = psp_fileOpen(name_of(folder, number).c_str(), PSP_OPEN_WRITE | PSP_OPEN_CREATE,
                               PSP_FILE_MEMORY);
    psp_fileWrite(file, bytes, content);
    psp_fileClose(file);
  }
  return (heap_bytes() - before) / kFiles;
}

double tmpfs_bytes_per_file(uint32_t content) {
  static const char bytes[100] = {};
  const std::string folder = "/dev/shm/psp-memory-" + std::to_string(getpid()) + "/";
  std::filesystem::create_directory(folder);
  const double before = kernel_bytes();
  bool works = true;
  for (int number = 0; number < kFiles; ++number) {
    const int file = open(name_of(folder.c_str(), number).c_str(), O_CREAT | O_WRONLY, 0600);
    works &= write(file, bytes, content) == static_cast<ssize_t>(content);
    close(file);
  }
  const double after = kernel_bytes();
  std::filesystem::remove_all(folder);
  return works ? (after - before) / kFiles : 0;
}

}  // namespace

int main() {
  if (psp_init() != PSP_OKAY) return 1;
  std::printf("bytes a file, of %d files in one folder      psp    tmpfs\n", kFiles);
  for (const uint32_t content : {0u, 100u}) {
    const std::string folder = "\\memory" + std::to_string(content) + "\\";
    std::printf("  of %3u bytes                            %8.0f %8.0f\n", content,
                store_bytes_per_file(folder.c_str(), content), tmpfs_bytes_per_file(content));
  }
  psp_term();
  return 0;
}
