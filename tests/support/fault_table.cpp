// The table of faults: for each exported function how often memory, the platform layer and the C
// library below it failed in it.
//
// A fault counts for the outermost exported function under way. A function whose last act is a call
// has no frame by then; so its name is taken from the test's call of it, an x86 call instruction
// with a 32-bit distance, whatever has become of the frames inside. What the function of a service
// calls stands for itself; what a transport of typed buffers calls counts for the buffer. Filled by
// one thread at a time.
#include <dlfcn.h>
#include <execinfo.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <map>
#include <regex>
#include <set>

#include "support/faults.h"

namespace psp::faults {
namespace {

enum Column { kNull, kNullOn, kJump, kCall, kCallOn, kShort, kSystemOnce, kSystemOn, kColumns };

struct Row {
  uint32_t failed[kColumns] = {};
  bool comes_to_memory = false, comes_to_platform = false;

  bool memory_failed() const { return failed[kNull] + failed[kNullOn] + failed[kJump] != 0; }
  bool platform_failed() const {
    return failed[kCall] + failed[kCallOn] + failed[kSystemOnce] + failed[kSystemOn] != 0;
  }
};

std::map<std::string, Row> &table() {
  static std::map<std::string, Row> rows;
  return rows;
}

std::set<std::string> &without_need() {
  static std::set<std::string> names;
  return names;
}

// The row of the exported function whose call returns here; null for any other call.
Row *row_of_call(const void *after) {
  const auto *end = static_cast<const unsigned char *>(after);
  if (end[-5] != 0xE8) return nullptr;
  int32_t distance = 0;
  std::memcpy(&distance, end - 4, 4);
  const void *target = end + distance;
  Dl_info symbol = {};
  if (dladdr(target, &symbol) == 0 || symbol.dli_saddr != target) return nullptr;
  const std::string name = symbol.dli_sname;
  return name.starts_with("psp_") ? &table()[name] : nullptr;
}

Row *row_under_way() {
  static std::map<const void *, Row *> known;
  static const Row *const service = &table()["psp_serviceStart"];
  Row *outermost = nullptr;
  void *frames[100];
  for (int index = backtrace(frames, 100); --index > 0;) {
    const auto [found, is_new] = known.try_emplace(frames[index]);
    if (is_new) found->second = row_of_call(frames[index]);
    if (found->second != nullptr && (outermost == nullptr || outermost == service))
      outermost = found->second;
    if (outermost != nullptr && outermost != service) break;
  }
  return outermost;
}

Column column_of(const Fault &fault) {
  const bool once = fault.times == 1;
  if (fault.kind == Kind::kAllocation) return fault.jumps ? kJump : once ? kNull : kNullOn;
  if (fault.kind == Kind::kCall) return once ? kCall : kCallOn;
  if (fault.kind == Kind::kSystemCall) return once ? kSystemOnce : kSystemOn;
  return kShort;
}

// The exported functions, and whether their comments say that they need no memory.
std::map<std::string, bool> functions_of(const char *header) {
  std::ifstream file(header);
  std::map<std::string, bool> functions;
  std::string text;
  for (std::string line; std::getline(file, line);) {
    if (line.starts_with("#")) continue;
    const size_t start = line.find_first_not_of("/* ");  // behind the marks of a comment
    const bool is_comment = line.starts_with("/**") || line.starts_with(" * ");
    text += is_comment && start != line.npos ? line.substr(start) + " " : line + "\n";
  }
  for (size_t at = 0; (at = text.find("PSP_API ", at)) != text.npos; ++at) {
    const size_t name = text.find("psp_", text.rfind(' ', text.find('(', at)));
    const size_t memory = text.rfind("Memory: ", at);
    functions[text.substr(name, text.find('(', name) - name)] =
        text.compare(memory, 19, "Memory: needs none.") == 0;
  }
  return functions;
}

void print(FILE *to) {
  std::fprintf(to, "%8s %8s %8s %8s %8s %8s %8s %8s  %s\n", "null", "null on", "jump", "call",
               "call on", "short", "system", "sys. on", "in");
  Row sum;
  for (const auto &[name, row] : table()) {
    for (int column = 0; column < kColumns; ++column) {
      std::fprintf(to, "%8u ", row.failed[column]);
      sum.failed[column] += row.failed[column];
    }
    std::fprintf(to, " %s\n", name.c_str());
  }
  for (const uint32_t failed : sum.failed) std::fprintf(to, "%8u ", failed);
  std::fprintf(
      to, " all\n%zu functions come to neither memory nor the platform:", without_need().size());
  for (const std::string &name : without_need()) std::fprintf(to, " %s", name.c_str());
  std::fprintf(to, "\n");
}

}  // namespace

bool table_is_kept = true;

void note_in_table(const Fault &fault, bool memory) {
  if (!table_is_kept) return;
  const int before = errno;
  if (Row *row = row_under_way(); row != nullptr) {
    (memory ? row->comes_to_memory : row->comes_to_platform) = true;
    if (fault.kind != Kind::kNone) ++row->failed[column_of(fault)];
  }
  errno = before;
}

void note_without_need(const char *calls) {
  const std::regex call("psp_\\w+(?=\\()");
  for (std::cregex_iterator at(calls, calls + strlen(calls), call), end; at != end; ++at)
    without_need().insert(at->str());
}

std::vector<std::string> print_table_and_list_missing(const char *header) {
  print(stdout);
  if (const char *path = std::getenv("PSP_FAULT_TABLE"); path != nullptr) {
    FILE *file = std::fopen(path, "w");
    if (file != nullptr) print(file), std::fclose(file);
  }
  std::vector<std::string> missing;
  for (const auto &[name, needs_none] : functions_of(header)) {
    const Row row = table()[name];
    const bool needless = without_need().count(name) != 0;
    if ((!needs_none || row.comes_to_memory) && !row.memory_failed())
      missing.push_back(name + ": memory");
    if (row.comes_to_platform && !row.platform_failed()) missing.push_back(name + ": platform");
    if (!needless && !row.memory_failed() && !row.platform_failed()) missing.push_back(name);
    if (needless && (row.comes_to_memory || row.comes_to_platform))
      missing.push_back(name + ": is said to come to nothing");
  }
  return missing;
}

}  // namespace psp::faults
