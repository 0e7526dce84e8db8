// The INI store: what the library holds of the INI files that it has read.
//
// A file's contents are four blocks of the default tag, whatever the number of keys: one text with
// every name and value, the sections and the keys in the order of the file, and an index of both by
// name. They are built once, by the reader, and do not change.
//
//     text:      name \0 value \0 name \0 ...      sections and keys tell offsets in it
//     keys:      | of section 0 | of section 1 | ...
//     index:     | places of sections | places of keys |      open addressing, at most half full
//
// Names compare without regard to the case of the letters A to Z, but names of files on the disk as
// the platform compares them. Of equal names only the first is in the index, as only the first is
// ever found; lists go through the arrays.
//
// No locks: pspini.cpp guards the store. Included by the modules of ini/.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <string_view>

#include "psp.h"

namespace psp::ini {

inline constexpr uint32_t kNumberMaxBytes = 17;

// The text from a place within it on, at most count bytes. Not string_view's own, which would bring
// in the C++ library's exceptions.
inline std::string_view part(std::string_view text, size_t from,
                             size_t count = std::string_view::npos) {
  return {text.data() + from, std::min(count, text.size() - from)};
}

struct Section {
  uint32_t name;  // offset in the text
  uint32_t name_hash;
  uint32_t first_key;
  uint32_t key_count;
  uint8_t name_bytes;
};

struct Key {
  uint32_t name;  // offset in the text; the value stands behind the name's zero byte
  uint32_t name_hash;
  uint32_t value_bytes;
  int32_t number;  // that the value begins with, if it is at most kNumberMaxBytes long
  uint32_t section;
  uint8_t name_bytes;
};

// A place of the index; empty when next_number is 0.
struct Place {
  uint32_t hash;
  uint32_t next_number;  // 1 + the number of the section or key
};

struct Contents {
  char *text;
  Section *sections;
  Key *keys;
  Place *index;
  // Offsets in the text have 32 bits. So have the numbers: each section and key takes bytes of it.
  uint32_t text_bytes, section_count, key_count;
  size_t text_capacity, section_capacity, key_capacity;
  size_t section_places, key_places;  // powers of 2
};

inline std::string_view name_of(const Contents &contents, const Section &section) {
  return {contents.text + section.name, section.name_bytes};
}
inline std::string_view name_of(const Contents &contents, const Key &key) {
  return {contents.text + key.name, key.name_bytes};
}
inline std::string_view value_of(const Contents &contents, const Key &key) {
  return {contents.text + key.name + key.name_bytes + 1, key.value_bytes};
}

inline bool is_white(char character) {
  return character == ' ' || (character >= '\t' && character <= '\r');
}

// Whether two texts are equal without regard to the case of the letters A to Z.
bool equal_names(std::string_view first, std::string_view second);

// Of contents that were read: the first section of that name, the first key of that name in the
// section; null if there is none.
const Section *find_section(const Contents &contents, std::string_view name);
const Key *find_key(const Contents &contents, const Section &section, std::string_view name);

// Reads a file. False, with nothing obtained, when it cannot be opened or read to its end, when
// memory runs out, or when it is too large for offsets and numbers of 32 bits.
bool read_contents(const char *file, uint16_t mode, Contents *contents);
void release_contents(Contents *contents);

struct File {
  char *name;
  Contents contents;
};

// The files in the order of their first reading. They are few: a search looks at each one.
struct Store {
  File *files;
  size_t capacity;
  uint32_t count;
  uint32_t latest;  // the file found last
};

// The first file of that name. An entry has no side: the mode word tells how names compare.
File *find_file(Store *store, const char *name, uint16_t mode);
// Gives the contents to the file's entry, which is made if need be, and the old ones back. Null
// when memory is short, and then the store and the contents are as before.
File *put_contents(Store *store, const char *name, uint16_t mode, const Contents &contents);
void release_store(Store *store);

}  // namespace psp::ini
