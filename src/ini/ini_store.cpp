// The INI store: the reader of INI files, the index, the list of files.
//
// Owns nothing itself; takes no lock. Every block grows geometrically, so that a file of n bytes
// is read in time proportional to n.
#include "ini/ini_store.h"

#include <algorithm>
#include <bit>
#include <cstring>
#include <limits>

#include "core/checked.h"
#include "os/os.h"
#include "streams/stream.h"

namespace psp::ini {

namespace {

constexpr char kSource[] = "ini_store.cpp";

constexpr size_t kNameBytes = 127;  // what is kept of a section's or key's name
constexpr size_t kFirstEntries = 16;
constexpr size_t kFirstTextBytes = 1024;

// ---- Names --------------------------------------------------------------------------------------

constexpr uint64_t kEachByte = 0x0101010101010101;

// Turns the letters A to Z among eight bytes into small ones. In each byte without its top bit, the
// first sum has the top bit set from 'A' on, the second from behind 'Z' on; no sum carries into the
// next byte.
inline uint64_t fold(uint64_t bytes) {
  const uint64_t low = bytes & (0x7F * kEachByte);
  const uint64_t from_a = low + (0x80 - 'A') * kEachByte;
  const uint64_t behind_z = low + (0x7F - 'Z') * kEachByte;
  const uint64_t letters = (from_a ^ behind_z) & ~bytes & (0x80 * kEachByte);
  return bytes | (letters >> 2);
}

template <class Word>
inline uint64_t load(const char *bytes) {
  Word word = 0;
  std::memcpy(&word, bytes, sizeof word);
  return word;
}

// Fewer bytes than a word. Each is in the result, some perhaps twice: texts of one length have
// equal words exactly if they are equal.
inline uint64_t short_word(const char *bytes, size_t count) {
  if (count == 0) return 0;
  if (count >= 4) return load<uint32_t>(bytes) << 32 | load<uint32_t>(bytes + count - 4);
  return load<uint8_t>(bytes) << 16 | load<uint8_t>(bytes + count / 2) << 8 |
         load<uint8_t>(bytes + count - 1);
}

constexpr size_t kWordBytes = sizeof(uint64_t);

inline uint64_t mix(uint64_t hash, uint64_t word) {
  constexpr uint64_t kOddFactor = 0x9E3779B97F4A7C15;
  hash = (hash ^ word) * kOddFactor;
  return hash ^ (hash >> 32);
}

// The last word of a longer text may overlap the one before it.
[[gnu::always_inline]] inline uint32_t hash_name(std::string_view name, uint64_t seed) {
  const char *bytes = name.data();
  const size_t count = name.size();
  uint64_t hash = seed ^ (uint64_t{count} << 32);
  if (count < kWordBytes) return static_cast<uint32_t>(mix(hash, fold(short_word(bytes, count))));
  const char *const last = bytes + count - kWordBytes;
  for (; bytes < last; bytes += kWordBytes) hash = mix(hash, fold(load<uint64_t>(bytes)));
  return static_cast<uint32_t>(mix(hash, fold(load<uint64_t>(last))));
}

// Names are mostly written as they are looked up: only words that differ are folded.
inline bool equal_words(uint64_t first, uint64_t second) {
  return first == second || fold(first) == fold(second);
}

inline bool are_equal(std::string_view first, std::string_view second) {
  const size_t count = first.size();
  if (count != second.size()) return false;
  const char *ours = first.data();
  const char *other = second.data();
  if (count < kWordBytes) return equal_words(short_word(ours, count), short_word(other, count));
  const size_t last = count - kWordBytes;
  for (size_t at = 0; at < last; at += kWordBytes) {
    if (!equal_words(load<uint64_t>(ours + at), load<uint64_t>(other + at))) return false;
  }
  return equal_words(load<uint64_t>(ours + last), load<uint64_t>(other + last));
}

constexpr uint64_t kSectionSeed = 1;
// Keys of one name in different sections lie apart.
inline uint64_t key_seed(uint32_t section) { return 2 + uint64_t{section}; }

// ---- Building -----------------------------------------------------------------------------------

// Makes room for one more entry of an array.
template <class Entry>
[[nodiscard]] bool reserve_entry(Entry **entries, uint32_t count, size_t *capacity) {
  if (count < *capacity) return true;
  const size_t larger = std::max(kFirstEntries, *capacity * 2);
  const size_t bytes = multiply_or_most(larger, sizeof(Entry));
  void *moved = psp_extendMem(*entries, bytes, nullptr, 0, 0, kSource, __LINE__);
  if (moved == nullptr) return false;
  *entries = static_cast<Entry *>(moved);
  *capacity = larger;
  return true;
}

[[nodiscard]] bool reserve_text(Contents *contents, size_t more_bytes) {
  const size_t wanted = add_or_most(contents->text_bytes, more_bytes);
  if (!fits<uint32_t>(wanted)) return false;
  if (wanted <= contents->text_capacity) return true;
  const size_t larger = std::max({kFirstTextBytes, contents->text_capacity * 2, wanted});
  void *moved = psp_extendMem(contents->text, larger, nullptr, 0, 0, kSource, __LINE__);
  if (moved == nullptr) return false;
  contents->text = static_cast<char *>(moved);
  contents->text_capacity = larger;
  return true;
}

// Appends a text and a zero byte, for which there is room, and tells where it stands.
uint32_t append_text(Contents *contents, std::string_view text) {
  const uint32_t offset = contents->text_bytes;
  char *place = contents->text + offset;
  if (!text.empty()) std::memcpy(place, text.data(), text.size());
  place[text.size()] = '\0';
  contents->text_bytes += static_cast<uint32_t>(text.size() + 1);
  return offset;
}

bool add_section(Contents *contents, std::string_view name) {
  name = part(name, 0, kNameBytes);
  if (!reserve_text(contents, name.size() + 1)) return false;
  if (!reserve_entry(&contents->sections, contents->section_count, &contents->section_capacity)) {
    return false;
  }
  contents->sections[contents->section_count++] = {
      append_text(contents, name), hash_name(name, kSectionSeed), contents->key_count, 0,
      static_cast<uint8_t>(name.size())};
  return true;
}

// White space, a sign, digits: the nearest 32-bit value. Texts of kNumberMaxBytes fit 64 bits.
int32_t number_of(std::string_view text) {
  const char *at = text.data();
  const char *const end = at + text.size();
  while (at != end && is_white(*at)) ++at;
  const bool negative = at != end && *at == '-';
  if (negative || (at != end && *at == '+')) ++at;
  int64_t number = 0;
  for (; at != end && *at >= '0' && *at <= '9'; ++at) number = number * 10 + (*at - '0');
  using Limits = std::numeric_limits<int32_t>;
  if (negative) number = -number;
  return static_cast<int32_t>(std::clamp<int64_t>(number, Limits::min(), Limits::max()));
}

// Adds a key to the last section.
bool add_key(Contents *contents, std::string_view name, std::string_view value) {
  name = part(name, 0, kNameBytes);
  const uint32_t section_number = contents->section_count - 1;
  Section &section = contents->sections[section_number];
  // A line is shorter than 2^32 bytes, so that the sum wraps nowhere but on 32 bits, where the
  // line alone would have filled the address space.
  if (!reserve_text(contents, name.size() + value.size() + 2)) return false;
  if (!reserve_entry(&contents->keys, contents->key_count, &contents->key_capacity)) return false;
  Key &key = contents->keys[contents->key_count++];
  key.name = append_text(contents, name);
  key.name_hash = hash_name(name, key_seed(section_number));
  key.value_bytes = static_cast<uint32_t>(value.size());
  key.number = value.size() <= kNumberMaxBytes ? number_of(value) : 0;
  key.section = section_number;
  key.name_bytes = static_cast<uint8_t>(name.size());
  append_text(contents, value);
  ++section.key_count;
  return true;
}

// ---- Index --------------------------------------------------------------------------------------

// The place of the entry with that hash which is_it accepts by its number, or the empty place where
// it would stand. There always is an empty place.
template <class IsIt>
inline Place *find_place(Place *places, size_t count, uint32_t hash, IsIt &&is_it) {
  for (size_t at = hash & (count - 1);; at = (at + 1) & (count - 1)) {
    Place &place = places[at];
    if (place.next_number == 0) return &place;
    if (place.hash == hash && is_it(place.next_number - 1)) return &place;
  }
}

inline Place *section_place(const Contents &contents, std::string_view name, uint32_t hash) {
  return find_place(contents.index, contents.section_places, hash, [&](uint32_t number) {
    return are_equal(name_of(contents, contents.sections[number]), name);
  });
}

inline Place *key_place(const Contents &contents, uint32_t section, std::string_view name,
                        uint32_t hash) {
  Place *places = contents.index + contents.section_places;
  return find_place(places, contents.key_places, hash, [&](uint32_t number) {
    const Key &key = contents.keys[number];
    return key.section == section && are_equal(name_of(contents, key), name);
  });
}

inline void occupy(Place *place, uint32_t hash, uint32_t number) {
  if (place->next_number == 0) *place = {hash, number + 1};
}

bool build_index(Contents *contents) {
  // No sum wraps: each section and key has an entry of more bytes than are counted here.
  contents->section_places = std::bit_ceil(size_t{contents->section_count} * 2 + 1);
  contents->key_places = std::bit_ceil(size_t{contents->key_count} * 2 + 1);
  const size_t bytes =
      multiply_or_most(contents->section_places + contents->key_places, sizeof(Place));
  contents->index =
      static_cast<Place *>(psp_getMem(bytes, nullptr, PSP_MEM_ZERO, nullptr, kSource, __LINE__));
  if (contents->index == nullptr) return false;
  for (uint32_t number = 0; number < contents->section_count; ++number) {
    const Section &section = contents->sections[number];
    occupy(section_place(*contents, name_of(*contents, section), section.name_hash),
           section.name_hash, number);
  }
  for (uint32_t number = 0; number < contents->key_count; ++number) {
    const Key &key = contents->keys[number];
    occupy(key_place(*contents, key.section, name_of(*contents, key), key.name_hash), key.name_hash,
           number);
  }
  return true;
}

// ---- Reading ------------------------------------------------------------------------------------

// The line up to what ends its text, without white space at its end.
std::string_view text_of(const streams::Line &line) {
  size_t length = line.length;
  for (const char end : {'\0', ';', '\r'}) {
    const void *found = std::memchr(line.text, end, length);
    if (found != nullptr)
      length = static_cast<size_t>(static_cast<const char *>(found) - line.text);
  }
  while (length != 0 && is_white(line.text[length - 1])) --length;
  return {line.text, length};
}

bool add_line(Contents *contents, std::string_view text) {
  if (text.empty()) return true;
  if (text.front() == '[') {
    text.remove_prefix(1);
    return add_section(contents, part(text, 0, text.find(']')));
  }
  const size_t equals = text.find('=');
  if (contents->section_count == 0 || equals == std::string_view::npos) return true;
  std::string_view name = part(text, 0, equals);
  while (!name.empty() && name.back() == ' ') name.remove_suffix(1);
  if (name.empty()) return true;
  std::string_view value = part(text, equals + 1);
  while (!value.empty() && value.front() == ' ') value.remove_prefix(1);
  return add_key(contents, name, value);
}

bool read_lines(psp_stream *stream, Contents *contents) {
  streams::Line line = {};
  streams::LineResult result = streams::read_whole_line(stream, &line);
  while (result == streams::LineResult::kRead && add_line(contents, text_of(line))) {
    result = streams::read_whole_line(stream, &line);
  }
  psp_freeMem(line.text, nullptr);
  return result == streams::LineResult::kFileEnd;
}

}  // namespace

bool equal_names(std::string_view first, std::string_view second) {
  return are_equal(first, second);
}

const Section *find_section(const Contents &contents, std::string_view name) {
  const Place *place = section_place(contents, name, hash_name(name, kSectionSeed));
  return place->next_number != 0 ? &contents.sections[place->next_number - 1] : nullptr;
}

const Key *find_key(const Contents &contents, const Section &section, std::string_view name) {
  const auto section_number = static_cast<uint32_t>(&section - contents.sections);
  const uint32_t hash = hash_name(name, key_seed(section_number));
  const Place *place = key_place(contents, section_number, name, hash);
  return place->next_number != 0 ? &contents.keys[place->next_number - 1] : nullptr;
}

bool read_contents(const char *file, uint16_t mode, Contents *contents) {
  *contents = {};
  psp_stream *stream = psp_fopenEx(file, "r", 0, mode);
  if (stream == nullptr) return false;
  const bool read = read_lines(stream, contents) && build_index(contents);
  psp_fclose(stream);
  if (!read) release_contents(contents);
  return read;
}

void release_contents(Contents *contents) {
  psp_freeMem(contents->text, nullptr);
  psp_freeMem(contents->sections, nullptr);
  psp_freeMem(contents->keys, nullptr);
  psp_freeMem(contents->index, nullptr);
  *contents = {};
}

// ---- Files --------------------------------------------------------------------------------------

File *find_file(Store *store, const char *name, uint16_t mode) {
  // Most lookups go to the file of the one before, spelled alike.
  if (store->count != 0 && std::strcmp(store->files[store->latest].name, name) == 0) {
    return &store->files[store->latest];
  }
  const bool in_store = (mode & PSP_FILE_MEMORY) != 0;
  for (uint32_t number = 0; number < store->count; ++number) {
    File &file = store->files[number];
    if (in_store ? !are_equal(file.name, name) : !os::names_are_equal(file.name, name)) continue;
    store->latest = number;
    return &file;
  }
  return nullptr;
}

File *put_contents(Store *store, const char *name, uint16_t mode, const Contents &contents) {
  File *file = find_file(store, name, mode);
  if (file == nullptr) {
    if (!reserve_entry(&store->files, store->count, &store->capacity)) return nullptr;
    auto *own_name =
        static_cast<char *>(psp_getMem(0, nullptr, PSP_MEM_STRDUP, name, kSource, __LINE__));
    if (own_name == nullptr) return nullptr;
    file = &store->files[store->count++];
    *file = {own_name, {}};
  }
  release_contents(&file->contents);
  file->contents = contents;
  return file;
}

void release_store(Store *store) {
  for (uint32_t number = 0; number < store->count; ++number) {
    release_contents(&store->files[number].contents);
    psp_freeMem(store->files[number].name, nullptr);
  }
  psp_freeMem(store->files, nullptr);
  *store = {};
}

}  // namespace psp::ini
