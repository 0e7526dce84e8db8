// Names: what they are split into and made of, which names a pattern lets through, what a path
// leads to in the in-memory store, which entries of the disk an iteration gives, names for
// temporary files.
//
// An input is a sequence of steps. The store begins empty; its model is a tree.
#include <unistd.h>

#include <algorithm>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <map>
#include <optional>
#include <vector>

#include "files/files.h"
#include "fuzz.h"
#include "psp.h"
#include "support/pattern_model.h"

namespace {

using Text = std::string;
using psp::tests::slow_match;

Text folded(Text text) {
  for (char &c : text) c = psp::tests::lower_ascii(c);
  return text;
}

Text with_backslashes(Text text) {
  for (char &c : text) c = c == '/' ? '\\' : c;
  return text;
}

Text taken(char *text) {
  const Text copy = text != nullptr ? text : "(none)";
  psp_freeMem(text, nullptr);
  return copy;
}

// ---- The parts of a name ------------------------------------------------------------------------

Text directory_text(const Text &name) {
  const Text text = with_backslashes(name);
  return !text.empty() && text.back() == '\\' ? text : text + '\\';
}

bool is_qualified(const Text &name) {
  const Text text = with_backslashes(name);
  if (text.substr(0, 1) == "\\") return true;
  return folded(text)[0] >= 'a' && folded(text)[0] <= 'z' && text.substr(1, 2) == ":\\";
}

Text full_path(const Text &name) {
  const Text current = directory_text(std::filesystem::current_path());
  if (name.empty() || name == "." || name == ".\\") return current;
  const Text whole = directory_text(name);
  return is_qualified(whole) ? whole : current + whole;
}

Text without_drive(const Text &name) {
  return name.size() > 1 && name[1] == ':' ? name.substr(2) : name;
}

void expect_parts(const Text &name) {
  size_t end = Text::npos;
  for (const char separator : {'\\', '/', ':'}) {
    if (end == Text::npos) end = name.rfind(separator);
  }
  const size_t at = end == Text::npos ? 0 : end + 1;
  char *directory = nullptr, *file = nullptr;
  psp_pathSplit(name.c_str(), &directory, &file);
  FUZZ_EXPECT(taken(directory) == (at != 0 ? name.substr(0, at) : "(none)"));
  FUZZ_EXPECT(taken(file) == (at == 0 || at < name.size() ? name.substr(at) : "(none)"));

  FUZZ_EXPECT(psp_pathIsFullyQualified(name.c_str()) == (is_qualified(name) ? 1 : 0));
  FUZZ_EXPECT(psp_pathStripDrive(name.c_str()) == without_drive(name));
  FUZZ_EXPECT(taken(psp_fullpath(name.c_str())) == full_path(name));
  const bool names_directory = !name.empty() && (name.back() == '\\' || name.back() == ':');
  FUZZ_EXPECT(psp_pathIsDir(name.c_str()) == (name.empty() ? -1 : names_directory ? 1 : 0));
}

// ---- Patterns -----------------------------------------------------------------------------------

void expect_match(const Text &name, const Text &pattern) {
  FUZZ_EXPECT(psp::files::matches_pattern(name.c_str(), pattern.c_str()) ==
              slow_match(name.c_str(), pattern.c_str()));
}

using Found = std::vector<std::pair<Text, uint32_t>>;

// All that an iteration gives; nothing where none begins.
std::optional<Found> found(const Text &directory, uint16_t mode, const Text &pattern) {
  psp_pathIter *names = psp_pathOpenEx(directory.c_str(), mode, pattern.c_str());
  if (names == nullptr) return std::nullopt;
  Found all;
  uint32_t is_directory = 7;
  while (const char *name = psp_pathNext(names, &is_directory)) {
    all.emplace_back(name, is_directory);
  }
  psp_pathClose(names);
  return all;
}

// ---- Entries of the disk ------------------------------------------------------------------------

// Makes a folder with such entries. One with a backslash in its name is not told.
void expect_disk_listing(fuzz::Input *input) {
  const std::filesystem::path folder = fuzz::folder() + "/listed";
  std::filesystem::create_directory(folder);
  std::map<Text, uint32_t> entries = {{".", 16}, {"..", 16}};
  for (uint32_t count = input->below(6); count != 0; --count) {
    Text name = input->text(24);
    for (char &c : name) c = c == '/' ? '_' : c;
    if (name.empty() || std::filesystem::exists(folder / name)) continue;
    const bool is_directory = name.size() % 4 == 0;
    if (is_directory) {
      std::filesystem::create_directory(folder / name);
    } else {
      fuzz::write_file(folder / name, "");
    }
    if (name.find('\\') == Text::npos) entries[name] = is_directory ? 16 : 0;
  }
  const Text pattern = input->text(12);
  Found expected;
  for (const auto &entry : entries) {
    if (pattern == "*.*" || slow_match(entry.first.c_str(), pattern.c_str())) {
      expected.push_back(entry);
    }
  }
  Found listed = found(folder, 0, pattern).value_or(Found());
  std::sort(listed.begin(), listed.end());
  FUZZ_EXPECT(listed == expected);
  FUZZ_EXPECT(found(folder, 0, pattern).has_value() == !expected.empty());
  std::filesystem::remove_all(folder);
}

// ---- Temporary names ----------------------------------------------------------------------------

void expect_temporary_name(fuzz::Input *input) {
  const bool has_prefix = input->below(2) != 0, has_extension = input->below(2) != 0;
  auto counter = input->number<uint32_t>();
  const Text directory = input->text(300), prefix = input->text(300), extension = input->text(20);
  setenv("VKD_TMPDIR", directory.c_str(), 1);
  char numbers[100];
  snprintf(numbers, sizeof numbers, "_%08" PRIXPTR "_%010u_%03" PRIu32 ".",
           reinterpret_cast<uintptr_t>(&counter), static_cast<unsigned>(getpid()), counter);
  const Text expected = directory + '\\' + (has_prefix ? prefix : "temp") + numbers +
                        (has_extension ? extension : "tmp");
  const uint32_t before = counter;
  FUZZ_EXPECT(taken(psp_fileCreateTmpName(&counter, has_prefix ? prefix.c_str() : nullptr,
                                          has_extension ? extension.c_str() : nullptr, nullptr)) ==
              expected);
  FUZZ_EXPECT(counter == before + 1);
  FUZZ_EXPECT(taken(psp_tmpdir(nullptr)) == directory);
  unsetenv("VKD_TMPDIR");
}

// ---- Paths of the store -------------------------------------------------------------------------

constexpr uint16_t kMemory = PSP_FILE_MEMORY;

struct Node {
  Text spelled;
  bool is_directory = true;
  std::map<Text, Node> entries;  // by name in lower case

  Node *find(const Text &name) {
    const auto at = entries.find(folded(name));
    return at != entries.end() ? &at->second : nullptr;
  }
  Node *add(const Text &name, bool as_directory) {
    return &(entries[folded(name)] = {name, as_directory, {}});
  }
};

class Store {
 public:
  void step(fuzz::Input *input) {
    const Text path = made_path(input);
    switch (input->below(7)) {
      case 0:
      case 1:
        return open(path, true);
      case 2:
        return open(path, false);
      case 3:
        return validate(path);
      case 4:
        return remove(path);
      case 5:
        return rename(path, made_path(input));
      default:
        return list(path, input->text(12));
    }
  }

  void compare(const Text &path, Node *directory) {
    FUZZ_EXPECT(found(path, kMemory, "*") == listing(*directory, "*"));
    for (auto &[key, node] : directory->entries) {
      if (node.is_directory) compare(path + node.spelled + '\\', &node);
    }
  }
  Node *root() { return &root_; }

 private:
  struct Place {
    Node *directory = nullptr;
    Text name;
    Node *find() { return directory != nullptr ? directory->find(name) : nullptr; }
  };

  // Any text, or few components, so that paths meet.
  static Text made_path(fuzz::Input *input) {
    static constexpr const char *kPieces[] = {
        "\\a", "\\A", "\\b", "/B", "\\c.txt", "\\.", "/..", "\\", "\\\\", "a", "\\...", "c:", ".."};
    uint32_t pieces = input->below(8);
    if (pieces == 0) return input->text(200);
    Text path;
    while (--pieces != 0) path += kPieces[input->below(std::size(kPieces))];
    return path;
  }

  // The components that are left, or nothing where ".." takes the first one of a path that does not
  // begin at the root. A ".." in front of all others leads to the root.
  static std::optional<std::vector<Text>> resolved(const Text &path, bool *is_rooted) {
    std::vector<Text> left;
    *is_rooted = path.substr(0, 1) == "\\";
    for (size_t at = 0; at < path.size();) {
      const size_t end = std::min(path.find('\\', at), path.size());
      const Text component = path.substr(at, end - at);
      at = end + 1;
      if (component.empty() || component == ".") continue;
      if (component != "..") {
        left.push_back(component);
      } else if (left.empty()) {
        *is_rooted = true;
      } else {
        left.pop_back();
        if (left.empty() && !*is_rooted) return std::nullopt;
      }
    }
    *is_rooted = *is_rooted || left.empty();
    return left;
  }

  // Goes there, and makes each directory above the last one, and that one if told so.
  Node *walk(const std::vector<Text> &components, bool makes_last) {
    Node *at = &root_;
    for (size_t index = 0; index < components.size(); ++index) {
      Node *next = at->find(components[index]);
      if (next == nullptr) {
        if (index + 1 == components.size() && !makes_last) return nullptr;
        next = at->add(components[index], true);
      }
      if (!next->is_directory) return nullptr;
      at = next;
    }
    return at;
  }

  Node *directory_of(const Text &path) {
    bool is_rooted = false;
    const auto components = resolved(without_drive(with_backslashes(path)), &is_rooted);
    return components ? walk(*components, false) : nullptr;
  }

  // The directory, made if it is missing, and the name in it.
  Place place_of(const Text &path) {
    const Text text = without_drive(with_backslashes(path));
    size_t end = text.rfind('\\');
    if (end == Text::npos) end = text.rfind(':');
    if (end == Text::npos || end + 1 == text.size()) return {};
    const Text directory = text.substr(0, end + 1);
    bool is_rooted = false;
    const auto components =
        resolved(directory[0] == '\\' ? directory : full_path(directory), &is_rooted);
    if (!components || !is_rooted) return {};
    return {walk(*components, true), text.substr(end + 1)};
  }

  static bool is_name(const Text &name) { return !name.empty() && name != "." && name != ".."; }

  void open(const Text &path, bool creates) {
    Place place = place_of(path);
    Node *node = place.find();
    if (node == nullptr && creates && place.directory != nullptr && is_name(place.name)) {
      node = place.directory->add(place.name, false);
    }
    PSP_FH file = psp_fileOpen(path.c_str(), creates ? PSP_OPEN_CREATE : 0u, kMemory);
    FUZZ_EXPECT((file != nullptr) == (node != nullptr && !node->is_directory));
    if (file != nullptr) psp_fileClose(file);
  }

  void validate(const Text &path) {
    Node *node = directory_of(path);
    if (node == nullptr) {
      node = place_of(path).find();
      if (node != nullptr && node->is_directory) node = nullptr;
    }
    uint32_t is_directory = 7;
    const int32_t exists = psp_fileValidateEx(path.c_str(), kMemory, &is_directory);
    FUZZ_EXPECT(exists == (node != nullptr ? 1 : 0));
    FUZZ_EXPECT(is_directory == (node == nullptr ? 7u : node->is_directory ? 1u : 0u));
  }

  void remove(const Text &path) {
    Place place = place_of(path);
    Node *node = place.find();
    psp_status expected = place.directory == nullptr ? PSP_FAILED : PSP_NOTFOUND;
    if (node != nullptr) expected = node->is_directory ? PSP_FAILED : PSP_OKAY;
    FUZZ_EXPECT(psp_fileRemoveEx(path.c_str(), kMemory) == expected);
    if (expected == PSP_OKAY) place.directory->entries.erase(folded(place.name));
  }

  // Of the new path the last component counts alone.
  void rename(const Text &path, const Text &new_path) {
    const Text text = with_backslashes(new_path);
    const Text new_name = text.substr(text.rfind('\\') + 1);
    Place place = place_of(path);
    Node *node = place.find();
    psp_status expected = place.directory == nullptr ? PSP_FAILED : PSP_NOTFOUND;
    if (node != nullptr) {
      const bool is_free = is_name(new_name) && place.directory->find(new_name) == nullptr;
      expected = is_free ? PSP_OKAY : PSP_FAILED;
    }
    FUZZ_EXPECT(psp_fileRenameEx(path.c_str(), kMemory, new_path.c_str(), kMemory) == expected);
    if (expected != PSP_OKAY) return;
    Node moved = std::move(*node);
    moved.spelled = new_name;
    place.directory->entries.erase(folded(place.name));
    place.directory->entries[folded(new_name)] = std::move(moved);
  }

  static Found listing(const Node &directory, const Text &pattern) {
    Found names;
    for (const auto &[key, node] : directory.entries) {
      if (slow_match(node.spelled.c_str(), pattern.c_str())) {
        names.emplace_back(node.spelled, node.is_directory ? 1 : 0);
      }
    }
    return names;
  }

  void list(const Text &path, const Text &pattern) {
    Node *directory = path.empty() ? nullptr : directory_of(path);
    std::optional<Found> expected;
    if (directory != nullptr) expected = listing(*directory, pattern);
    FUZZ_EXPECT(found(path, kMemory, pattern) == expected);
  }

  Node root_;
};

}  // namespace

void fuzz::run(Input input) {
  Store store;
  bool is_used = false;
  for (int steps = 0; steps < 40 && !input.empty(); ++steps) {
    const uint32_t kind = input.below(16);
    if (kind < 3) {
      expect_parts(input.text(300));
    } else if (kind < 5) {
      const Text name = input.text(24);
      expect_match(name, input.text(12));
    } else if (kind == 5) {
      expect_disk_listing(&input);
    } else if (kind == 6) {
      expect_temporary_name(&input);
    } else {
      is_used = true;
      store.step(&input);
    }
  }
  if (!is_used) return;
  store.compare("\\.\\", store.root());  // "\:x" would begin like a drive
  // The store ends with the library.
  psp_term();
  FUZZ_EXPECT(psp_init() == PSP_OKAY);
}
