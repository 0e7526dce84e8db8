// Questions about a file by name beside the system's own status query, which is what they cost at
// least.
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>

#include "bench.h"
#include "psp.h"

namespace {

using benchmark::State;
using psp_bench::add_case;

// A file that lives as long as the run.
const char *name() {
  static const struct File {
    File() { close(mkstemp(name)); }
    ~File() { unlink(name); }
    char name[32] = "/tmp/psp-bench-XXXXXX";
  } file;
  return file.name;
}

// Asks again and again; the digest is the last answer.
template <class Ask>
auto ask(Ask question) {
  return [question](State &state) {
    uint64_t answer = 0;
    for (auto _ : state) benchmark::DoNotOptimize(answer = static_cast<uint64_t>(question()));
    return answer;
  };
}

void add_wholefile_cases() {
  const auto status = [] {
    struct stat answer = {};
    if (stat(name(), &answer) != 0) abort();
    return answer;
  };
  add_case("files/file exists",
           {{"psp", ask([] { return psp_fileValidate(name()); })},
            {"stat", ask([status] { return S_ISREG(status().st_mode); }), 1.2}});
  add_case("files/modification time by name",
           {{"psp", ask([] { return psp_fileModTimeStat(name(), 0); })},
            {"stat", ask([status] { return status().st_mtime; }), 1.2}});
}

const psp_bench::Registration registration(add_wholefile_cases);

}  // namespace
