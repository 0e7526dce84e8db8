// Module psptmpdir: the temporary directory and names of temporary files.
//
// Owns the name of the directory that was found, from the first search to the last stop. It is
// written inside the global critical section, once, and read without it.
#include <atomic>
#include <cstring>

#include "core/critical_section.h"
#include "core/exported_call.h"
#include "core/modules.h"
#include "os/os.h"

namespace psp::files {

namespace {

constexpr char kSource[] = "psptmpdir.cpp";
constexpr char kSeparator = '\\';
constexpr char kSeparatorText[] = {kSeparator, '\0'};
constexpr size_t kProbeNameBytes = 512;
constexpr size_t kSystemNameBytes = 264;  // of the system's own directory

struct State {
  std::atomic<char *> found{nullptr};
};

constinit State state;

char *copy_text(const char *text, psp_tag *tag) {
  return static_cast<char *>(psp_getMem(0, tag, PSP_MEM_STRDUP, text, kSource, __LINE__));
}

// What came of a search. Shortage, of memory or of handles, is no answer: taken for one, it would
// make a second choice the directory for the rest of the process's life, or put a file where nobody
// looks for it.
enum class Search { kFound, kNone, kShortage };

Search failed_search() {
  const os::Condition condition = os::file_condition(os::last_error());
  const bool is_short =
      condition == os::Condition::kShortOfMemory || condition == os::Condition::kShortOfHandles;
  return is_short ? Search::kShortage : Search::kNone;
}

// Whether a file can be made in the directory. Process and thread are in its name, so that nobody
// else makes the same one at the same time.
Search probe(const char *directory) {
  char name[kProbeNameBytes];
  const int32_t length =
      psp_snprintf(name, sizeof name, "%s%cvkd_dirtest_tmp%08X%p", directory, kSeparator,
                   psp_get_pid(), reinterpret_cast<void *>(static_cast<uintptr_t>(psp_threadId())));
  if (static_cast<size_t>(length) >= sizeof name) return Search::kNone;
  PSP_FH file = psp_fileOpen(name, PSP_OPEN_READWRITE | PSP_OPEN_CREATE, 0);
  if (file == nullptr) return failed_search();
  psp_fileClose(file);
  psp_fileRemove(name);
  return Search::kFound;
}

Search try_candidate(const char *candidate, char **directory) {
  if (candidate == nullptr || *candidate == '\0') return Search::kNone;
  const Search result = probe(candidate);
  if (result != Search::kFound) return result;
  *directory = copy_text(candidate, nullptr);
  return *directory != nullptr ? Search::kFound : Search::kShortage;
}

Search try_system_directory(char **directory) {
  char candidate[kSystemNameBytes];
  if (os::system_temporary_directory(candidate, sizeof candidate) != 0) return Search::kNone;
  return try_candidate(candidate, directory);
}

Search try_current_directory(char **directory) {
  char *candidate = psp_currdir();
  if (candidate == nullptr) return failed_search();
  const Search result = probe(candidate);
  if (result == Search::kFound) {
    *directory = candidate;
  } else {
    os::LastErrorKeeper keeper;
    psp_freeMem(candidate, nullptr);
  }
  return result;
}

// The first candidate in which a file can be made, as a new string of the default tag.
Search discover(char **directory) {
  Search result = try_candidate(psp_getenv("TEMP"), directory);
  if (result == Search::kNone) result = try_candidate(psp_getenv("TMP"), directory);
  if (result == Search::kNone) result = try_system_directory(directory);
  if (result == Search::kNone) result = try_current_directory(directory);
  return result;
}

// The directory, found now or before. After any other result the next call looks again.
Search find_directory(const char **directory) {
  char *found = state.found.load(std::memory_order_acquire);
  Search result = Search::kFound;
  if (found == nullptr) {
    const core::CriticalSection inside;
    found = state.found.load(std::memory_order_relaxed);
    if (found == nullptr) result = discover(&found);
    if (result == Search::kFound) state.found.store(found, std::memory_order_release);
  }
  *directory = found;
  return result;
}

// A new string of the tag.
Search copy_directory(psp_tag *tag, char **copy) {
  const char *directory = psp_getenv("VKD_TMPDIR");
  if (directory == nullptr) {
    const Search result = find_directory(&directory);
    if (result != Search::kFound) return result;
  }
  *copy = copy_text(directory, tag);
  return *copy != nullptr ? Search::kFound : Search::kShortage;
}

char *temporary_name(uint32_t *counter, const char *prefix, const char *extension, psp_tag *tag) {
  if (prefix == nullptr) prefix = "temp";
  if (extension == nullptr) extension = "tmp";
  const uint32_t number = (*counter)++;
  char *directory = nullptr;
  const Search result = copy_directory(nullptr, &directory);
  if (result == Search::kShortage) return nullptr;
  const bool is_found = result == Search::kFound;
  char *name = psp_makeStrVA(kSource, __LINE__, tag, "%s%s%s_%p_%010u_%03u.%s",
                             is_found ? directory : "", is_found ? kSeparatorText : "", prefix,
                             static_cast<void *>(counter), psp_get_pid(), number, extension);
  os::LastErrorKeeper keeper;
  psp_freeMem(directory, nullptr);
  return name;
}

}  // namespace
}  // namespace psp::files

using namespace psp;

void core::temporary_directory_stop() {
  psp_freeMem(files::state.found.exchange(nullptr, std::memory_order_relaxed), nullptr);
}

char *psp_tmpdir(psp_tag *tag) {
  return core::exported_call([&] {
    char *directory = nullptr;
    files::copy_directory(tag, &directory);
    return directory;
  });
}

char *psp_fileCreateTmpName(uint32_t *counter, const char *prefix, const char *extension,
                            psp_tag *tag) {
  if (counter == nullptr) {
    os::set_last_error(os::refusal_code(os::Refusal::kInvalidArgument));
    return nullptr;
  }
  return core::exported_call(
      [&] { return files::temporary_name(counter, prefix, extension, tag); });
}
