// INI files: arbitrary bytes as a file. What the store answers is what a plain reading of the file
// gives, and an update changes the bytes that it has to change and no other.
//
// An input is a change (section, key and value, each up to a zero byte, and a byte that tells which
// of them count), a number for the size of a small buffer, and the file.
#include <cstdlib>
#include <optional>
#include <vector>

#include "fuzz.h"
#include "psp.h"
#include "stream_model.h"

namespace {

using Text = std::string;

struct Key {
  Text name, value;
};
struct Section {
  Text name;
  std::vector<Key> keys;
};
struct Change {
  Text section;
  std::optional<Text> key, value;
};

constexpr char kWhite[] = " \t\n\v\f\r";

bool equal(Text first, Text second) {
  for (Text *text : {&first, &second}) {
    for (char &c : *text) c = static_cast<char>(c >= 'A' && c <= 'Z' ? c + 32 : c);
  }
  return first == second;
}

// The lines of a file's text, each with its line feed. A byte FF, which a stream reads as its end,
// is a byte like any other here.
std::vector<Text> lines_of(const Text &bytes) {
  fuzz::StreamModel stream(bytes, "r", 1);
  std::vector<Text> lines(1);
  for (;;) {
    const int32_t c = stream.getc();
    if (c == -1 && stream.ended) break;
    lines.back() += static_cast<char>(c);
    if (c == '\n') lines.emplace_back();
  }
  if (lines.back().empty()) lines.pop_back();
  return lines;
}

std::vector<Section> sections_of(const std::vector<Text> &lines) {
  std::vector<Section> sections;
  for (const Text &line : lines) {
    Text text = line.substr(0, line.find_first_of(Text("\0\r\n;", 4)));
    text.erase(text.find_last_not_of(kWhite) + 1);
    const size_t equals = text.find('=');
    if (!text.empty() && text[0] == '[') {
      sections.push_back({text.substr(1, text.find(']') - 1).substr(0, 127), {}});
    } else if (!sections.empty() && equals != Text::npos) {
      Text name = text.substr(0, equals), value = text.substr(equals + 1);
      name.erase(name.find_last_not_of(' ') + 1);
      value.erase(0, value.find_first_not_of(' '));
      if (!name.empty()) sections.back().keys.push_back({name.substr(0, 127), value});
    }
  }
  return sections;
}

// ---- Lookups ------------------------------------------------------------------------------------

// Looks up into a buffer of that size, and then into one that is just large enough. The answer is
// these bytes, as far as they fit.
void expect_answer(const Text &file, const char *section, const char *key, const Text &answer,
                   size_t size) {
  Text buffer(size, '#');
  const psp_status status =
      psp_iniGet(file.c_str(), section, key, buffer.data(), static_cast<uint32_t>(size));
  const bool fits = answer.size() < size - 1;
  FUZZ_EXPECT(status == (fits ? PSP_OKAY : PSP_ERR_BUFFERFULL));
  const Text stored = answer.substr(0, size - 1) + '\0';
  FUZZ_EXPECT(buffer == stored + Text(size - stored.size(), '#'));
  if (!fits) expect_answer(file, section, key, answer, answer.size() + 2);
}

template <class Entry>
const Entry *first(const std::vector<Entry> &entries, const Text &name) {
  for (const Entry &entry : entries) {
    if (equal(entry.name, name)) return &entry;
  }
  return nullptr;
}

template <class Entry>
Text list_of(const std::vector<Entry> &entries) {
  Text list;
  for (const Entry &entry : entries) list += entry.name + '\0';
  return list;
}

void expect_value(const Text &file, const Text &section, const Text &name, const Text &value,
                  size_t size) {
  expect_answer(file, section.c_str(), name.c_str(), value + '\0', size);
  int32_t number = 77;
  const psp_status status = psp_iniInt32(file.c_str(), section.c_str(), name.c_str(), &number);
  FUZZ_EXPECT(status == (value.size() > 17 ? PSP_ERR_BUFFERFULL : PSP_OKAY));
  const int64_t whole = std::strtoll(value.c_str(), nullptr, 10);
  const int64_t nearest = whole < INT32_MIN ? INT32_MIN : whole > INT32_MAX ? INT32_MAX : whole;
  FUZZ_EXPECT(number == (status == PSP_OKAY ? nearest : 77));
}

void expect_contents(const Text &file, const std::vector<Section> &sections, size_t size) {
  expect_answer(file, nullptr, nullptr, list_of(sections), size);
  for (const Section &listed : sections) {
    const Section &section = *first(sections, listed.name);
    expect_answer(file, listed.name.c_str(), nullptr, list_of(section.keys), size);
    for (const Key &key : section.keys) {
      expect_value(file, listed.name, key.name, first(section.keys, key.name)->value, size);
    }
  }
}

// ---- Updates ------------------------------------------------------------------------------------

Text updated(const std::vector<Text> &lines, const Change &change) {
  enum { kBefore, kInside, kDone } phase = kBefore;
  Text out, blanks;
  const auto on_a_line_of_its_own = [&](const Text &text) {
    if (!out.empty() && out.back() != '\n') out += '\n';
    out += text;
  };
  const bool sets = change.key && change.value;
  const Text key_line = sets ? *change.key + "=" + *change.value + "\n" : "";
  for (const Text &line : lines) {
    const Text seen = line.substr(0, line.find_first_of(Text("\0\n", 2)));
    const bool opens = !seen.empty() && seen[0] == '[';
    if (phase == kBefore) {
      const size_t close = seen.find(']');
      if (opens && close != Text::npos &&
          equal(seen.substr(1, close - 1), change.section.substr(0, change.section.find(']')))) {
        phase = kInside;
        if (!change.key) continue;
      }
    } else if (phase == kInside && opens) {
      phase = kDone;
      if (sets) on_a_line_of_its_own(key_line);
      out += blanks;
    } else if (phase == kInside) {
      if (!change.key) continue;
      if (line.find_first_not_of(kWhite) == Text::npos) {
        if (sets) blanks += '\n';
        continue;
      }
      out += blanks;
      blanks.clear();
      if (equal(seen.substr(0, seen.find('=')), *change.key)) {
        if (!sets) continue;
        phase = kDone;
        on_a_line_of_its_own(key_line);
        continue;
      }
    }
    out += line;
  }
  if (sets && phase == kBefore) on_a_line_of_its_own("\n[" + change.section + "]\n");
  if (sets && phase != kDone) on_a_line_of_its_own(key_line);
  return out;
}

bool is_plain(const Text &text) {
  return !text.empty() && text.size() <= 127 && text.find_first_of("[]=;\r\n") == Text::npos &&
         !std::strchr(kWhite, text.front()) && !std::strchr(kWhite, text.back());
}

void expect_update(const Text &file, const std::vector<Text> &lines, const Change &change) {
  const char *key = change.key ? change.key->c_str() : nullptr;
  const char *value = change.value ? change.value->c_str() : nullptr;
  FUZZ_EXPECT(psp_iniSet(file.c_str(), change.section.c_str(), key, value) == PSP_OKAY);
  Text bytes;
  for (const char c : updated(lines, change)) bytes += c == '\n' ? Text("\r\n") : Text(1, c);
  FUZZ_EXPECT(fuzz::read_file(file) == bytes);

  // A text that begins like a mark loses that to it, and is read in its encoding from now on.
  for (const char *mark : {"\xFF\xFE", "\xFE\xFF", "\xEF\xBB\xBF"}) {
    if (bytes.starts_with(mark)) return;
  }
  const bool is_new = first(sections_of(lines), change.section) == nullptr;
  if (is_new && key && value && is_plain(change.section) && is_plain(*change.key) &&
      is_plain(*change.value)) {
    expect_value(file, change.section, *change.key, *change.value, 1000);
  }
}

}  // namespace

void fuzz::run(Input input) {
  Change change = {input.text(300), input.text(300), input.text(300)};
  const uint32_t kind = input.below(4);
  const size_t size = input.below(40) + 2;
  if (kind >= 1) change.value.reset();
  if (kind == 2) change.key.reset();
  const Text bytes = input.rest();
  const Text file = folder() + "/file.ini";
  write_file(file, bytes);

  const std::vector<Text> lines = lines_of(bytes);
  expect_contents(file, sections_of(lines), size);
  if (kind != 3) {
    expect_update(file, lines, change);
    expect_contents(file, sections_of(lines_of(read_file(file))), size);
  }
  psp_iniCleanup();
}
