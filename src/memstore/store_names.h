// From a path to a directory of the store and an entry in it.
//
// Included by the parts of module pspmfile.
#pragma once

#include <cstdint>
#include <string_view>

#include "memstore/pspmdir.h"
#include "memstore/pspsegfile.h"

namespace psp::memstore {

// A text of its own: common lengths have room inside, others take a block of the default tag.
class OwnText {
 public:
  OwnText() = default;
  ~OwnText();
  OwnText(const OwnText &) = delete;
  OwnText &operator=(const OwnText &) = delete;

  // Copies the text, slashes turned into backslashes. False when memory is short. Once only.
  bool take_path(const char *text);

  char *text() { return text_; }

 private:
  char inside_[256];
  char *text_ = inside_;
};

// Removes what a path has too much: runs of separators, ".", ".." together with the component
// before it, and separators at the end. The empty text is the root, which is its own parent. False
// when ".." takes the only component of a path that does not begin at the root.
[[nodiscard]] bool normalise(char *path);

// A directory that is open, and locked from lock() to close().
class Directory {
 public:
  Directory() = default;
  ~Directory() { close(); }
  Directory(const Directory &) = delete;
  Directory &operator=(const Directory &) = delete;

  bool open(HeapId id, uint32_t flags) { return file_.open(id, flags); }
  void lock();
  void unlock();
  void close();
  SegmentedFile *file() { return &file_; }

 private:
  SegmentedFile file_;
  bool is_locked_ = false;
};

// The way from the root down to a directory. At most two directories are open at once, and the
// parent's lock is held while the child is looked up, opened or created.
class Walk {
 public:
  // Opens the directory of a normalised path. Missing directories above the last component are
  // created; the last one if `creates`. False on failure.
  bool open(const char *path, bool creates);

  Directory &directory() { return places_[current_]; }

 private:
  bool open_root();
  bool descend(std::string_view name, bool creates);

  Directory places_[2];
  int current_ = 0;
};

// An entry in its directory, which stays locked for as long as the object lives.
class Entry {
 public:
  // Opens and locks the directory of the path, with every missing directory created, and keeps the
  // last component as the name. False on failure.
  bool enter(const char *path);

  std::string_view name() const { return name_; }

  // PSP_OKAY with the entry found, or PSP_NOTFOUND; a file only: PSP_FAILED for a directory. The
  // last error tells which.
  psp_status find(std::string_view name);
  psp_status find_file(std::string_view name);

  // Behind a find.
  HeapId heap() const { return found_.heap; }
  EntryType type() const { return found_.type; }
  void set_heap(HeapId heap) { mdir_set_heap(cursor_, heap); }
  void remove() { mdir_delete(&cursor_); }

  // Behind a find that gave PSP_NOTFOUND, for that name.
  psp_status insert(std::string_view name, HeapId heap, EntryType type);
  psp_status create_file();

 private:
  bool open_directory(char *directory, OwnText *absolute);

  OwnText path_;
  std::string_view name_;
  Walk walk_;
  DirectoryCursor cursor_;
  DirectoryEntry found_;
};

// The last component of a path: all of it where there is no separator.
std::string_view last_component(const char *path);

}  // namespace psp::memstore
