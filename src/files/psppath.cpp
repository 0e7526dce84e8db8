// Module psppath: names as text, directories, and the iteration over their entries.
//
// Owns nothing but the iterators that it hands out, one thread's at a time. The library writes
// backslashes and looks for both separators; the platform layer turns them into its own.
#include <cstring>

#include "core/exported_call.h"
#include "core/lifecycle.h"
#include "files/files.h"
#include "memstore/pspmfile.h"
#include "os/os.h"
#include "text/ascii.h"

namespace {

constexpr char kSource[] = "psppath.cpp";
constexpr char kSeparator = '\\';
constexpr uint32_t kDirectoryFlag = 0x10;

bool is_separator(char character) { return character == '\\' || character == '/'; }

}  // namespace

// One iteration. The pattern stands behind the record, unless the iteration is the store's.
struct psp_pathIter {
  psp::memstore::StoreIterator *stored;  // null: over a directory of the disk
  psp::os::Directory directory;
  psp::os::DirectoryEntry found;  // the first match, until it is handed out
  bool is_found_waiting;
  bool matches_everything;
  bool is_at_end;  // final: a directory that grows behind it does not bring more

  char *pattern() { return reinterpret_cast<char *>(this + 1); }
};

namespace psp::files {

// Only the last "*" is ever tried again: whatever an earlier one let through, the later one could
// have skipped more, so the first place where the text between them fits is as good as any.
bool matches_pattern(const char *name, const char *pattern) {
  const char *literal = nullptr;  // the character behind the last "*"
  const char *place = nullptr;    // where in the name it is looked for next
  for (;;) {
    if (*pattern == '*') {
      if (*++pattern == '\0') return true;
      literal = pattern;
      place = name;
    } else if (*pattern == '\0' && *name == '\0') {
      return true;
    } else if (*pattern != '\0' && *name != '\0' &&
               (*pattern == '?' || text::to_lower(*pattern) == text::to_lower(*name))) {
      ++pattern;
      ++name;
      continue;
    } else if (literal == nullptr) {
      return false;
    }
    while (*place != '\0' && text::to_lower(*place) != text::to_lower(*literal)) ++place;
    if (*place == '\0') return false;
    name = ++place;
    pattern = literal + 1;
  }
}

namespace {

char *copy_bytes(const char *text, size_t length) {
  auto *copy = static_cast<char *>(
      psp_getMem(length + 1, nullptr, PSP_MEM_ALLOC, nullptr, kSource, __LINE__));
  if (copy == nullptr) return nullptr;
  memcpy(copy, text, length);
  copy[length] = '\0';
  return copy;
}

// The code of the failure before it stays.
void give_back(void *memory) {
  os::LastErrorKeeper keeper;
  psp_freeMem(memory, nullptr);
}

// The result of a refused call.
template <class Result>
Result refused(os::Refusal refusal, Result result) {
  refuse(refusal);
  return result;
}

char *copy_text(const char *text) { return copy_bytes(text, strlen(text)); }

// ---- Names --------------------------------------------------------------------------------------

char *current_directory() {
  constexpr size_t kGrowthBytes = 256;
  if (core::no_disk()) return copy_text("\\");
  char *buffer = nullptr;
  for (size_t size = kGrowthBytes;; size += kGrowthBytes) {
    void *grown = psp_extendMem(buffer, size, nullptr, 0, 0, kSource, __LINE__);
    if (grown == nullptr) break;
    buffer = static_cast<char *>(grown);
    const os::Error error = os::current_directory(buffer, size);
    if (error == 0) return buffer;
    if (os::file_condition(error) != os::Condition::kBufferTooSmall) break;
  }
  give_back(buffer);
  return nullptr;
}

// The text, which is not empty, with backslashes only and one at its end, in place of the block
// given; null stays null.
char *normalised(char *text) {
  if (text == nullptr) return nullptr;
  const size_t length = strlen(text);
  for (size_t index = 0; index < length; ++index) {
    if (text[index] == '/') text[index] = kSeparator;
  }
  if (text[length - 1] == kSeparator) return text;
  void *grown = psp_extendMem(text, length + 2, nullptr, 0, 0, kSource, __LINE__);
  if (grown == nullptr) {
    give_back(text);
    return nullptr;
  }
  text = static_cast<char *>(grown);
  text[length] = kSeparator;
  text[length + 1] = '\0';
  return text;
}

char *full_path(const char *name) {
  if (name == nullptr || *name == '\0' || strcmp(name, ".") == 0 || strcmp(name, ".\\") == 0) {
    return normalised(current_directory());
  }
  char *rest = normalised(copy_text(name));
  if (rest == nullptr || psp_pathIsFullyQualified(rest) != 0) return rest;
  char *base = normalised(current_directory());
  char *whole = nullptr;
  if (base != nullptr) whole = psp_makeStrVA(kSource, __LINE__, nullptr, "%s%s", base, rest);
  give_back(base);
  give_back(rest);
  return whole;
}

void split(const char *name, char **directory, char **file) {
  if (directory != nullptr) *directory = nullptr;
  if (file != nullptr) *file = nullptr;
  if (name == nullptr) return;
  const char *separator = strrchr(name, '\\');
  if (separator == nullptr) separator = strrchr(name, '/');
  if (separator == nullptr) separator = strrchr(name, ':');
  const char *file_part = separator != nullptr ? separator + 1 : name;
  char *directory_copy = nullptr;
  if (directory != nullptr && separator != nullptr) {
    directory_copy = copy_bytes(name, static_cast<size_t>(file_part - name));
    if (directory_copy == nullptr) return;
  }
  if (file != nullptr && (separator == nullptr || *file_part != '\0')) {
    *file = copy_text(file_part);
    if (*file == nullptr) {
      give_back(directory_copy);
      return;
    }
  }
  if (directory != nullptr) *directory = directory_copy;
}

// ---- Iteration ----------------------------------------------------------------------------------

bool find_next(psp_pathIter *iterator, os::DirectoryEntry *entry) {
  if (iterator->is_at_end) return false;
  while (os::directory_next(&iterator->directory, entry)) {
    if (iterator->matches_everything || matches_pattern(entry->name, iterator->pattern())) {
      return true;
    }
  }
  iterator->is_at_end = true;
  return false;
}

// The entries of the disk. An iteration begins with its first match, as the search of a platform
// that knows patterns does: none is a failed open.
psp_pathIter *open_iteration(const char *directory, const char *pattern) {
  const size_t pattern_bytes = strlen(pattern) + 1;
  auto *iterator = static_cast<psp_pathIter *>(psp_getMem(
      sizeof(psp_pathIter) + pattern_bytes, nullptr, PSP_MEM_ZERO, nullptr, kSource, __LINE__));
  if (iterator == nullptr) return nullptr;
  memcpy(iterator->pattern(), pattern, pattern_bytes);
  iterator->matches_everything = strcmp(pattern, "*") == 0 || strcmp(pattern, "*.*") == 0;
  if (os::directory_open(directory, &iterator->directory) == 0) {
    iterator->is_found_waiting = find_next(iterator, &iterator->found);
    if (iterator->is_found_waiting) return iterator;
    os::directory_close(&iterator->directory);
  }
  give_back(iterator);
  return nullptr;
}

psp_pathIter *open_stored_iteration(const char *directory, const char *pattern) {
  auto *iterator = static_cast<psp_pathIter *>(
      psp_getMem(sizeof(psp_pathIter), nullptr, PSP_MEM_ZERO, nullptr, kSource, __LINE__));
  if (iterator == nullptr) return nullptr;
  iterator->stored = memstore::mfile_path_open(directory, pattern);
  if (iterator->stored != nullptr) return iterator;
  give_back(iterator);
  return nullptr;
}

// ---- Directories --------------------------------------------------------------------------------

// Whether there is a name, and a disk for it.
bool is_on_disk(const char *name) {
  if (name == nullptr) return refused(os::Refusal::kInvalidArgument, false);
  return core::no_disk() ? refused(os::Refusal::kAccessDenied, false) : true;
}

psp_status create_directory(const char *name) {
  if (!is_on_disk(name)) return PSP_FAILED;
  const os::Error error = os::directory_create(name);
  if (error == 0) return PSP_OKAY;
  return os::file_condition(error) == os::Condition::kAlreadyExists ? PSP_EXISTS : PSP_FAILED;
}

bool is_there(psp_status status) { return status == PSP_OKAY || status == PSP_EXISTS; }

psp_status create_with_parents(const char *name) {
  if (!is_on_disk(name)) return PSP_FAILED;
  const psp_status at_once = create_directory(name);
  if (is_there(at_once)) return at_once;
  char *path = copy_text(name);
  if (path == nullptr) return PSP_FAILED;
  psp_status status = PSP_OKAY;
  for (char *place = path; is_there(status) && *place != '\0' && *++place != '\0';) {
    if (!is_separator(*place)) continue;
    *place = '\0';
    status = create_directory(path);
    *place = kSeparator;
  }
  if (is_there(status)) status = create_directory(path);
  give_back(path);
  return status;
}

psp_status remove_directory(const char *name) {
  if (!is_on_disk(name)) return PSP_FAILED;
  const os::Error error = os::directory_remove(name);
  const bool is_gone = error == 0 || os::file_condition(error) == os::Condition::kNotFound;
  return is_gone ? PSP_OKAY : PSP_FAILED;
}

}  // namespace
}  // namespace psp::files

using namespace psp;
using core::exported_call;

char *psp_currdir(void) {
  return exported_call([] { return files::current_directory(); });
}

int32_t psp_pathIsFullyQualified(const char *name) {
  if (name == nullptr || *name == '\0') return 0;
  if (is_separator(name[0])) return 1;
  return text::is_letter(name[0]) && name[1] == ':' && is_separator(name[2]) ? 1 : 0;
}

char *psp_fullpath(const char *name) {
  return exported_call([&] { return files::full_path(name); });
}

void psp_pathSplit(const char *name, char **directory, char **file) {
  exported_call([&] { files::split(name, directory, file); });
}

const char *psp_pathStripDrive(const char *name) {
  if (name == nullptr || name[0] == '\0') return name;
  return name[1] == ':' ? name + 2 : name;
}

int32_t psp_pathIsDir(const char *name) {
  if (name == nullptr || *name == '\0') return -1;
  const char last = name[strlen(name) - 1];
  return last == '\\' || last == ':' ? 1 : 0;
}

int32_t psp_pathIsLink(const char *) { return 0; }

psp_pathIter *psp_pathOpen(const char *directory, const char *pattern) {
  return psp_pathOpenEx(directory, 0, pattern);
}

psp_pathIter *psp_pathOpenEx(const char *directory, uint16_t mode, const char *pattern) {
  const bool is_named = directory != nullptr && *directory != '\0' && pattern != nullptr;
  psp_pathIter *const none = nullptr;
  if (!is_named) return files::refused(os::Refusal::kInvalidArgument, none);
  if ((mode & PSP_FILE_MEMORY) != 0) {
    return exported_call([&] { return files::open_stored_iteration(directory, pattern); });
  }
  if (core::no_disk()) return files::refused(os::Refusal::kAccessDenied, none);
  return exported_call([&] { return files::open_iteration(directory, pattern); });
}

const char *psp_pathNext(psp_pathIter *iterator, uint32_t *directory) {
  const char *const none = nullptr;
  if (iterator == nullptr || directory == nullptr) {
    return files::refused(os::Refusal::kInvalidArgument, none);
  }
  if (iterator->stored != nullptr) {
    return exported_call([&] { return memstore::mfile_path_next(iterator->stored, directory); });
  }
  os::DirectoryEntry entry = iterator->found;
  if (!iterator->is_found_waiting && !files::find_next(iterator, &entry)) return nullptr;
  iterator->is_found_waiting = false;
  *directory = entry.is_directory ? kDirectoryFlag : 0;
  return entry.name;
}

void psp_pathClose(psp_pathIter *iterator) {
  if (iterator == nullptr) return;
  if (iterator->stored != nullptr) {
    memstore::mfile_path_close(iterator->stored);
  } else {
    os::directory_close(&iterator->directory);
  }
  files::give_back(iterator);
}

psp_status psp_dirCreate(const char *name) { return files::create_directory(name); }

psp_status psp_dirCreateW(const psp_wchar *name) {
  return exported_call(
      [&] { return files::with_narrow(name, psp_status{PSP_FAILED}, files::create_directory); });
}

psp_status psp_dirCreateAll(const char *name) {
  return exported_call([&] { return files::create_with_parents(name); });
}

psp_status psp_dirCreateAllW(const psp_wchar *name) {
  return exported_call(
      [&] { return files::with_narrow(name, psp_status{PSP_FAILED}, files::create_with_parents); });
}

psp_status psp_dirRemove(const char *name) { return files::remove_directory(name); }

psp_status psp_dirRemoveW(const psp_wchar *name) {
  return exported_call(
      [&] { return files::with_narrow(name, psp_status{PSP_FAILED}, files::remove_directory); });
}
