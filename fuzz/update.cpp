// Updates of INI files: a sequence of changes to a file, on the disk or in the in-memory store, and
// the same changes to a list of its lines. After each change the file is those lines, byte for
// byte, lookups give what the lines say, and no temporary file is left. (The target ini has
// arbitrary bytes as a file, and a single change.)
//
// An input tells how the file is encoded and where it stands, then its lines, then the changes
// until it ends.
#include <filesystem>
#include <optional>
#include <vector>

#include "fuzz.h"
#include "psp.h"

namespace {

using Text = std::string;
using Lines = std::vector<Text>;

constexpr char kStorePath[] = "\\fuzz\\file.ini";

// Without what ends a line or a string, and without a first byte that may begin a mark.
Text one_line(Text text) {
  for (char &c : text) c = c == '\r' || c == '\n' || c == '\0' ? '_' : c;
  if (!text.empty() && (text[0] & 0x80) != 0) text[0] = '~';
  return text;
}

// Few names, so that they meet: in both cases, with what a reader trims, at the longest name.
Text name(fuzz::Input *input) {
  static const Text kNames[] = {
      "s", "S", "a",  "b",  "Key", "key", "k v",          " led",         "end ",        "a]b",
      "=", "",  "[x", ";c", "a;b", "\tt", Text(127, 'n'), Text(128, 'n'), Text(300, 'N')};
  const uint32_t chosen = input->below(std::size(kNames) + 3);
  return chosen < std::size(kNames) ? kNames[chosen] : one_line(input->text(140));
}

bool is_white(char c) { return c == ' ' || (c >= '\t' && c <= '\r'); }

bool is_blank(const Text &line) {
  for (const char c : line) {
    if (!is_white(c)) return false;
  }
  return true;
}

Text folded(Text text) {
  for (char &c : text) c = static_cast<char>(c >= 'A' && c <= 'Z' ? c | 0x20 : c);
  return text;
}

Text up_to(const Text &text, char end) { return text.substr(0, text.find(end)); }

// ---- The lines of a file ------------------------------------------------------------------------

struct File {
  Lines lines;           // without their ends
  bool is_open = false;  // the last line has no end

  // Where the section's header stands; the number of lines if it is missing.
  size_t header(const Text &section) const {
    size_t at = 0;
    const Text wanted = folded("[" + up_to(section, ']') + "]");
    while (at < lines.size() &&
           (lines[at].find(']') == Text::npos || folded(up_to(lines[at], ']') + "]") != wanted)) {
      ++at;
    }
    return at;
  }
  size_t section_end(size_t header) const {
    size_t at = header + 1;
    while (at < lines.size() && lines[at].substr(0, 1) != "[") ++at;
    return at;
  }
  bool is_key(size_t at, const Text &key) const {
    return !is_blank(lines[at]) && folded(up_to(lines[at], '=')) == folded(key);
  }
  void erase(size_t from, size_t to) {
    if (from < to && to == lines.size()) is_open = false;
    lines.erase(lines.begin() + static_cast<ptrdiff_t>(from),
                lines.begin() + static_cast<ptrdiff_t>(to));
  }

  // A key line is replaced, or added behind the section's last line that says something. Blank
  // lines before it become empty ones, and those at the end of the file go.
  void set(const Text &section, const Text &key, const Text &value) {
    const Text line = key + "=" + value;
    const size_t start = header(section);
    if (start == lines.size()) {
      lines.insert(lines.end(), {"", "[" + section + "]", line});
      is_open = false;
      return;
    }
    const size_t end = section_end(start);
    size_t at = start + 1, behind_last = at;
    for (; at < end && !is_key(at, key); ++at) {
      if (is_blank(lines[at])) {
        lines[at].clear();
      } else {
        behind_last = at + 1;
      }
    }
    if (at < end) {
      lines[at] = line;
    } else {
      if (end == lines.size()) erase(behind_last, end);
      at = behind_last;
      lines.insert(lines.begin() + static_cast<ptrdiff_t>(at), line);
    }
    if (at + 1 == lines.size()) is_open = false;
  }

  // The section's blank lines go with the key.
  void remove_key(const Text &section, const Text &key) {
    const size_t start = header(section);
    if (start == lines.size()) return;
    for (size_t at = section_end(start); --at > start;) {
      if (is_blank(lines[at]) || is_key(at, key)) erase(at, at + 1);
    }
  }

  void remove_section(const Text &section) {
    const size_t start = header(section);
    if (start < lines.size()) erase(start, section_end(start));
  }

  Text bytes(const char *line_end) const {
    Text bytes;
    for (const Text &line : lines) bytes += line + line_end;
    if (is_open) bytes.resize(bytes.size() - strlen(line_end));
    return bytes;
  }

  // What a lookup gives: the names of the sections, of the keys of a section, or a value, each with
  // a zero byte; nothing where there is no such section or key.
  std::optional<Text> answer(const Text *section, const Text *key) const {
    Text names;
    bool is_inside = false, is_found = section == nullptr;
    for (const Text &line : lines) {
      Text text = up_to(line, ';');
      while (!text.empty() && is_white(text.back())) text.pop_back();
      if (text.substr(0, 1) == "[") {
        const Text listed = up_to(text.substr(1), ']').substr(0, 127);
        if (section == nullptr) names += listed + '\0';
        is_inside = !is_found && folded(listed) == folded(*section);
        is_found = is_found || is_inside;
      } else if (is_inside && text.find('=') != Text::npos) {
        Text listed = up_to(text, '='), value = text.substr(text.find('=') + 1);
        while (!listed.empty() && listed.back() == ' ') listed.pop_back();
        while (!value.empty() && value.front() == ' ') value.erase(0, 1);
        if (listed.empty()) continue;
        listed = listed.substr(0, 127);
        if (key != nullptr && folded(listed) == folded(*key)) return value + '\0';
        names += listed + '\0';
      }
    }
    if (!is_found || key != nullptr) return std::nullopt;
    return names;
  }
};

// ---- A file and its model -----------------------------------------------------------------------

class Updated {
 public:
  explicit Updated(fuzz::Input *input)
      : encoding_(input->below(4)), mode_(input->below(2) != 0 ? PSP_FILE_MEMORY : 0) {
    const char *const line_end = input->below(2) != 0 ? "\r\n" : "\n";
    const bool leaves_open = input->below(2) != 0;
    for (uint32_t count = input->below(24); count != 0; --count) {
      file_.lines.push_back(first_line(input));
    }
    file_.is_open = leaves_open && !file_.lines.empty() && !file_.lines.back().empty();
    path_ = mode_ != 0 ? kStorePath : fuzz::folder() + "/file.ini";
    temporary_ = path_.substr(0, path_.size() - strlen("file.ini")) + "_temp_.ini";
    write(encoded(file_.bytes(line_end)));
  }
  ~Updated() {
    psp_iniCleanup();
    FUZZ_EXPECT(psp_fileRemoveEx(path_.c_str(), mode_) == PSP_OKAY);
  }
  Updated(const Updated &) = delete;
  Updated &operator=(const Updated &) = delete;

  void change(fuzz::Input *input) {
    const uint32_t kind = input->below(8);
    const Text section = name(input);
    if (kind == 0) {
      file_.remove_section(section);
      expect_set(section, nullptr, nullptr);
      return compare(section, "");
    }
    const Text key = name(input);
    if (kind <= 2) {
      file_.remove_key(section, key);
      expect_set(section, key.c_str(), nullptr);
    } else {
      const Text value = one_line(input->text(400));
      file_.set(section, key, value);
      if (kind == 7 && is_ascii(section + key + value)) {
        expect_set_wide(section, key, value);
      } else {
        expect_set(section, key.c_str(), value.c_str());
      }
    }
    compare(section, key);
  }

  void compare_lookups() const {
    expect_answer(nullptr, nullptr);
    for (const Text &line : file_.lines) {
      if (line.substr(0, 1) == "[") expect_section(up_to(line.substr(1), ']'));
    }
  }

 private:
  Text first_line(fuzz::Input *input) const {
    Text line;
    switch (input->below(7)) {
      case 0:
      case 1:
        line = "[" + name(input) + "]";
        break;
      case 2:
        line = name(input) + "=" + name(input);
        break;
      case 3:
        line = name(input) + " = " + name(input) + " ; note";
        break;
      case 4:
        line = Text(input->below(3), ' ');
        break;
      case 5:
        line = ";" + name(input);
        break;
      default:
        line = input->text(60);
    }
    line = one_line(line);
    for (char &c : line) c = static_cast<char>(encoding_ == 0 ? c : c & 0x7F);
    return one_line(line);
  }

  Text encoded(const Text &text) const {
    static constexpr const char *kMarks[] = {"", "\xEF\xBB\xBF", "\xFF\xFE", "\xFE\xFF"};
    if (encoding_ < 2) return kMarks[encoding_] + text;
    Text bytes = kMarks[encoding_];
    for (const char c : text) bytes += encoding_ == 2 ? Text{c, '\0'} : Text{'\0', c};
    return bytes;
  }

  void write(const Text &bytes) const {
    PSP_FH file = psp_fileOpen(path_.c_str(), PSP_OPEN_WRITE | PSP_OPEN_TRUNCATE, mode_);
    FUZZ_EXPECT(file != nullptr);
    const auto count = static_cast<int32_t>(bytes.size());
    FUZZ_EXPECT(psp_fileWrite(file, bytes.data(), static_cast<uint32_t>(count)) == count);
    psp_fileClose(file);
  }

  Text read() const {
    PSP_FH file = psp_fileOpen(path_.c_str(), PSP_OPEN_READ, mode_);
    FUZZ_EXPECT(file != nullptr);
    Text bytes(static_cast<size_t>(psp_fileLength(file)), '#');
    FUZZ_EXPECT(psp_fileRead(file, bytes.data(), static_cast<uint32_t>(bytes.size())) ==
                static_cast<int32_t>(bytes.size()));
    psp_fileClose(file);
    return bytes;
  }

  void expect_set(const Text &section, const char *key, const char *value) const {
    FUZZ_EXPECT(psp_iniSetEx(path_.c_str(), section.c_str(), key, value, mode_) == PSP_OKAY);
  }

  static bool is_ascii(const Text &text) {
    for (const char c : text) {
      if ((c & 0x80) != 0) return false;
    }
    return true;
  }
  static std::basic_string<psp_wchar> wide(const Text &text) { return {text.begin(), text.end()}; }

  void expect_set_wide(const Text &section, const Text &key, const Text &value) const {
    FUZZ_EXPECT(psp_iniSetExW(wide(path_).c_str(), wide(section).c_str(), wide(key).c_str(),
                              wide(value).c_str(), mode_) == PSP_OKAY);
  }

  void compare(const Text &section, const Text &key) const {
    FUZZ_EXPECT(read() == file_.bytes("\r\n"));
    FUZZ_EXPECT(psp_fileValidateEx(temporary_.c_str(), mode_, nullptr) == 0);
    expect_answer(nullptr, nullptr);
    expect_answer(&section, nullptr);
    expect_answer(&section, &key);
  }

  void expect_section(const Text &section) const {
    const std::optional<Text> keys = expect_answer(&section, nullptr);
    for (size_t at = 0; keys && at < keys->size(); at = keys->find('\0', at) + 1) {
      const Text key = keys->c_str() + at;
      expect_answer(&section, &key);
    }
  }

  // Into a buffer that is just large enough. A section or a key that is missing gives no answer.
  std::optional<Text> expect_answer(const Text *section, const Text *key) const {
    const std::optional<Text> answer = file_.answer(section, key);
    const Text whole = answer.value_or("") + '\0';
    Text buffer(whole.size() + 1, '#');
    const psp_status status =
        psp_iniGetEx(path_.c_str(), section != nullptr ? section->c_str() : nullptr,
                     key != nullptr ? key->c_str() : nullptr, buffer.data(),
                     static_cast<uint32_t>(buffer.size()), mode_);
    FUZZ_EXPECT(status == (answer ? PSP_OKAY : PSP_FAILED));
    if (answer) FUZZ_EXPECT(buffer == whole + '#');
    return answer;
  }

  uint32_t encoding_;  // 8-bit, with a mark, 16-bit in both orders; an update writes 8-bit text
  uint16_t mode_;
  File file_;
  Text path_, temporary_;
};

}  // namespace

void fuzz::run(Input input) {
  Updated updated(&input);
  updated.compare_lookups();
  for (int changes = 0; changes < 12 && !input.empty(); ++changes) updated.change(&input);
  updated.compare_lookups();
}
