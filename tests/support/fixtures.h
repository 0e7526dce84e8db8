// What many tests stand on: the library started, a folder of their own, whole files, and what the
// library tells on the standard output.
#pragma once

#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <thread>
#include <vector>

#include "psp.h"

namespace psp::tests {

inline void put_file(const std::string &name, const std::string &content) {
  std::ofstream(name, std::ios::binary) << content;
}

inline std::string get_file(const std::string &name) {
  std::ifstream file(name, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), {}};
}

// The library is started around each test.
class Started : public testing::Test {
 protected:
  void SetUp() override { ASSERT_EQ(psp_init(), PSP_OKAY); }
  void TearDown() override { psp_term(); }
};

// A new folder, which goes with the object; in memory, where a sync costs nothing, if so wished and
// there is such a place.
class Folder {
 public:
  explicit Folder(bool in_memory = false)
      : folder_(
            (in_memory && std::filesystem::exists("/dev/shm") ? "/dev/shm/" : testing::TempDir()) +
            "psp_XXXXXX") {
    EXPECT_NE(mkdtemp(folder_.data()), nullptr);
  }
  ~Folder() { std::filesystem::remove_all(folder_); }

  std::string path(const std::string &name) const { return folder_ + "/" + name; }
  std::string put(const std::string &name, const std::string &content) const {
    put_file(path(name), content);
    return path(name);
  }
  std::string get(const std::string &name) const { return get_file(path(name)); }

 protected:
  std::string folder_;
};

class StartedInFolder : protected Folder, public Started {
 protected:
  using Folder::Folder;
};

// Does work(0), work(1), ... so often, each in a thread of its own, and waits for them.
template <class Work>
void in_threads(int count, const Work &work) {
  std::vector<std::thread> threads;
  for (int number = 0; number < count; ++number) threads.emplace_back([=, &work] { work(number); });
  for (std::thread &thread : threads) thread.join();
}

// How a forked child ends that does this and gives its exit code; 0 is well.
template <class Work>
int status_of_child(const Work &work) {
  const pid_t child = fork();
  if (child == 0) _exit(work());
  int status = -1;
  waitpid(child, &status, 0);
  return status;
}

// What the C runtime's standard output got while work ran.
template <class Work>
std::string output_of(Work work) {
  testing::internal::CaptureStdout();
  work();
  psp_log_flush();
  return testing::internal::GetCapturedStdout();
}

}  // namespace psp::tests
