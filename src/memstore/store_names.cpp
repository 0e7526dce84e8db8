// The names of the in-memory file store: paths, directories, entries. A part of module pspmfile.
//
// Owns nothing. Locks: a directory's, before those of directories below it.
#include "memstore/store_names.h"

#include <cstring>
#include <utility>

#include "files/files.h"
#include "os/os.h"

namespace psp::memstore {
namespace {

constexpr char kSource[] = "store_names.cpp";
constexpr char kSeparator = '\\';

// These lead elsewhere and name nothing.
bool is_dots(std::string_view name) { return name == "." || name == ".."; }

// Ends a heap that no entry names yet, or no longer.
psp_status drop_heap(HeapId id) {
  shmcache_delete(id);
  return PSP_FAILED;
}

// A heap that is an empty file, or an empty directory; kNoHeap when memory is short.
HeapId make_heap(EntryType type) {
  const HeapId id = shmheap_create();
  if (id == kNoHeap) return kNoHeap;
  Directory made;
  bool is_made = made.open(id, kCreateRoot);
  if (is_made && type == EntryType::kDirectory) {
    made.lock();
    is_made = mdir_init(made.file()) == PSP_OKAY;
  }
  made.close();
  if (!is_made) drop_heap(id);
  return is_made ? id : kNoHeap;
}

}  // namespace

// ---- Texts --------------------------------------------------------------------------------------

OwnText::~OwnText() {
  if (text_ == inside_) return;
  const os::LastErrorKeeper keeper;
  psp_freeMem(text_, nullptr);
}

bool OwnText::take_path(const char *text) {
  const size_t bytes = strlen(text) + 1;
  if (bytes > sizeof inside_) {
    auto *memory =
        static_cast<char *>(psp_getMem(bytes, nullptr, PSP_MEM_ALLOC, nullptr, kSource, __LINE__));
    if (memory == nullptr) return false;
    text_ = memory;
  }
  for (size_t index = 0; index < bytes; ++index) {
    text_[index] = text[index] == '/' ? kSeparator : text[index];
  }
  return true;
}

// Copies component by component to the front. Each brings the separator before it along; the first
// has none in a path that does not begin at the root.
bool normalise(char *path) {
  bool is_rooted = *path == kSeparator;
  char *end = path;
  const char *from = path;
  while (*from != '\0') {
    const size_t length = strcspn(from, "\\");
    const std::string_view component(from, length);
    from += length + (from[length] != '\0' ? 1 : 0);
    if (component.empty() || component == ".") continue;
    if (component != "..") {
      if (is_rooted || end > path) *end++ = kSeparator;
      memmove(end, component.data(), length);
      end += length;
      continue;
    }
    const bool was_at_start = end == path;
    while (end > path && *--end != kSeparator) {
    }
    if (end == path && !is_rooted) {
      if (!was_at_start) return false;
      is_rooted = true;  // the parent of what nothing is known of is the root
    }
  }
  *end = '\0';
  return true;
}

std::string_view last_component(const char *path) { return path + files::directory_bytes(path); }

// ---- Directories --------------------------------------------------------------------------------

void Directory::lock() {
  file_.lock();
  is_locked_ = true;
}

void Directory::unlock() {
  if (is_locked_) file_.unlock();
  is_locked_ = false;
}

void Directory::close() {
  if (!file_.is_open()) return;
  unlock();
  file_.close();
}

bool Walk::open(const char *path, bool creates) {
  if (!open_root()) return false;
  const char *place = path;
  while (*place != '\0') {
    if (*place == kSeparator) ++place;
    const std::string_view name(place, strcspn(place, "\\"));
    place += name.size();
    if (!descend(name, creates || *place != '\0')) return false;
  }
  return true;
}

// The root is laid out by whoever comes first. A thread that sees the length before all is done
// waits for the lock.
bool Walk::open_root() {
  Directory &root = places_[current_];
  if (shmheap_default() == kNoHeap) return false;  // the library is not started
  if (!root.open(shmheap_default(), kCreateRoot)) return false;
  if (root.file()->length() == kEmptyDirectoryBytes) return true;
  root.lock();
  const bool is_laid_out =
      root.file()->length() == kEmptyDirectoryBytes || mdir_init(root.file()) == PSP_OKAY;
  root.unlock();
  return is_laid_out;
}

bool Walk::descend(std::string_view name, bool creates) {
  Directory &parent = places_[current_];
  Directory &child = places_[1 - current_];
  parent.lock();
  DirectoryCursor cursor;
  cursor.file = parent.file();
  bool is_open = false;
  if (mdir_search(&cursor, name) == PSP_OKAY) {
    const DirectoryEntry entry = mdir_read(cursor);
    if (entry.type == EntryType::kDirectory) is_open = child.open(entry.heap, 0);
    if (!is_open) files::refuse(os::Refusal::kAccessDenied);
  } else if (!creates) {
    files::refuse(os::Refusal::kNotFound);
  } else {
    const HeapId id = make_heap(EntryType::kDirectory);
    // Named last: an entry never leads to a heap that is dropped.
    is_open = id != kNoHeap && child.open(id, 0) &&
              mdir_insert(&cursor, name, id, EntryType::kDirectory) == PSP_OKAY;
    if (id != kNoHeap && !is_open) {
      child.close();
      drop_heap(id);
    }
  }
  parent.close();
  current_ = 1 - current_;
  return is_open;
}

// ---- Entries ------------------------------------------------------------------------------------

// A directory that does not begin at the root is taken from the current directory.
bool Entry::open_directory(char *directory, OwnText *absolute) {
  char *path = directory;
  if (*directory != kSeparator) {
    char *full = psp_fullpath(directory);
    const bool is_taken = full != nullptr && absolute->take_path(full);
    const os::LastErrorKeeper keeper;
    psp_freeMem(full, nullptr);
    if (!is_taken) return false;
    path = absolute->text();
  }
  const bool is_absolute = normalise(path) && (*path == kSeparator || *path == '\0');
  return is_absolute && walk_.open(path, true);
}

bool Entry::enter(const char *path) {
  files::refuse(os::Refusal::kInvalidArgument);  // which whatever else goes wrong replaces
  if (!path_.take_path(psp_pathStripDrive(path))) return false;
  char *const text = path_.text();
  char *separator = strrchr(text, kSeparator);
  if (separator == nullptr) separator = strrchr(text, ':');
  if (separator == nullptr || separator[1] == '\0') return false;
  name_ = separator + 1;
  OwnText absolute;
  const char first_of_name = std::exchange(separator[1], '\0');
  const bool is_open = open_directory(text, &absolute);
  separator[1] = first_of_name;
  if (!is_open) return false;
  walk_.directory().lock();
  cursor_.file = walk_.directory().file();
  return true;
}

psp_status Entry::find(std::string_view name) {
  const psp_status status = mdir_search(&cursor_, name);
  if (status == PSP_OKAY) {
    found_ = mdir_read(cursor_);
  } else {
    files::refuse(os::Refusal::kNotFound);
  }
  return status;
}

psp_status Entry::find_file(std::string_view name) {
  const psp_status status = find(name);
  if (status != PSP_OKAY || found_.type == EntryType::kFile) return status;
  files::refuse(os::Refusal::kAccessDenied);
  return PSP_FAILED;
}

psp_status Entry::insert(std::string_view name, HeapId heap, EntryType type) {
  if (name.empty() || name.size() > kMaxNameBytes || is_dots(name)) {
    files::refuse(os::Refusal::kInvalidArgument);
    return PSP_FAILED;
  }
  return mdir_insert(&cursor_, name, heap, type);
}

psp_status Entry::create_file() {
  const HeapId id = make_heap(EntryType::kFile);
  if (id == kNoHeap) return PSP_FAILED;
  if (insert(name_, id, EntryType::kFile) != PSP_OKAY) return drop_heap(id);
  found_.heap = id;
  found_.type = EntryType::kFile;
  return PSP_OKAY;
}

}  // namespace psp::memstore
