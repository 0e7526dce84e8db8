// Iterating over a directory and starting threads, beside the system's own calls.
#include <dirent.h>
#include <pthread.h>
#include <semaphore.h>

#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>

#include "bench.h"
#include "psp.h"

namespace {

using benchmark::State;
using psp_bench::add_case;

constexpr int kEntries = 10'000;

// A directory of kEntries empty files that lives as long as the run.
const char *directory() {
  static const struct Directory {
    Directory() {
      if (mkdtemp(name) == nullptr) abort();
      for (int index = 0; index < kEntries; ++index) {
        std::ofstream(std::string(name) + "/table_" + std::to_string(index) + ".dat");
      }
    }
    ~Directory() { std::filesystem::remove_all(name); }
    char name[32] = "/tmp/psp-bench-XXXXXX";
  } the_directory;
  return the_directory.name;
}

// The digest is the bytes of all names.
auto iterate(const char *pattern) {
  return [pattern](State &state) {
    uint64_t bytes = 0;
    for (auto _ : state) {
      bytes = 0;
      uint32_t flag = 0;
      psp_pathIter *iterator = psp_pathOpen(directory(), pattern);
      while (const char *name = psp_pathNext(iterator, &flag)) {
        if (flag == 0) bytes += strlen(name);
      }
      psp_pathClose(iterator);
    }
    return bytes;
  };
}

uint64_t read_directory(State &state) {
  uint64_t bytes = 0;
  for (auto _ : state) {
    bytes = 0;
    DIR *stream = opendir(directory());
    while (const dirent *entry = readdir(stream)) {
      if (entry->d_type != DT_DIR) bytes += strlen(entry->d_name);
    }
    closedir(stream);
  }
  return bytes;
}

// From the start to the last act of the thread, one thread after the other.
template <class Start>
auto start_and_wait(Start start) {
  return [start](State &state) {
    sem_t ended;
    sem_init(&ended, 0, 0);
    for (auto _ : state) {
      if (!start(&ended)) state.SkipWithError("failed");
      while (sem_wait(&ended) != 0) {
      }
    }
    return uint64_t{0};
  };
}

void tell_end(void *ended) { sem_post(static_cast<sem_t *>(ended)); }

bool start_ours(sem_t *ended) { return psp_threadBegin(tell_end, 0, ended) == PSP_OKAY; }

bool start_ours_with_handle(sem_t *ended) {
  psp_threadHandle handle;
  return psp_threadBeginEx(tell_end, 0, ended, &handle, 0, 0) == PSP_OKAY;
}

bool start_theirs(sem_t *ended) {
  pthread_attr_t attributes;
  pthread_attr_init(&attributes);
  pthread_attr_setdetachstate(&attributes, PTHREAD_CREATE_DETACHED);
  pthread_t thread;
  const auto run = [](void *argument) -> void * { return tell_end(argument), nullptr; };
  const int error = pthread_create(&thread, &attributes, run, ended);
  pthread_attr_destroy(&attributes);
  return error == 0;
}

void add_path_cases() {
  add_case("paths/iterate over 10,000 names",
           {{"psp", iterate("*")}, {"readdir", read_directory, 1.3}});
  add_case("paths/iterate over 10,000 names by a pattern",
           {{"psp", iterate("*_*.DAT")}, {"readdir", read_directory, 1.3}});
  add_case("threads/start to end",
           {{"psp", start_and_wait(start_ours)}, {"pthread", start_and_wait(start_theirs), 1.1}});
  add_case("threads/start to end, handle wanted", {{"psp", start_and_wait(start_ours_with_handle)},
                                                   {"pthread", start_and_wait(start_theirs)}});
}

const psp_bench::Registration registration(add_path_cases);

}  // namespace
