// The update of an INI file. Every line that is not concerned is copied as it stands: names and
// values are bytes, zero bytes and bytes that are no UTF-8 included.
//
// The temporary file takes the place of the INI file only when all of the old one was read, the
// length of the new one is what was put into it, and it is durable. A crash leaves the INI file and
// perhaps a temporary file, which the next update removes.
//
// Owns nothing between calls. pspini.cpp holds the INI lock around an update, which serialises the
// updates of this process. Those of several processes are serialised, directory by directory, by
// the temporary file: whoever has created it has it until it is gone.
#include "ini/ini_rewrite.h"

#include <cstring>
#include <string_view>

#include "core/checked.h"
#include "files/files.h"
#include "ini/ini_store.h"
#include "os/os.h"
#include "streams/stream.h"

namespace psp::ini {

namespace {

constexpr char kSource[] = "ini_rewrite.cpp";
constexpr char kTemporaryName[] = "_temp_.ini";
constexpr int kTemporaryTries = 50;    // a millisecond apart
constexpr size_t kTargetBytes = 4096;  // of the name of the file itself; on the stack

bool in_store(uint16_t mode) { return (mode & PSP_FILE_MEMORY) != 0; }

// ---- The new file -------------------------------------------------------------------------------

// What is written, and how long the file must become by it.
struct Output {
  psp_stream *stream;
  int64_t file_bytes = 0;
  bool line_open = false;  // the last line has no line end yet
  bool failed = false;

  void put(std::string_view text) {
    if (text.empty() || failed) return;
    for (const char character : text) file_bytes += character == '\n' ? 2 : 1;
    line_open = text.back() != '\n';
    failed = streams::put_text(stream, text.data(), text.size()) < 0;
  }
};

enum class Phase { kBefore, kInside, kDone };  // relative to the section of the change

struct Rewrite {
  const Change &change;
  Output output;
  Phase phase = Phase::kBefore;
  uint64_t blank_lines = 0;  // of the section, held back

  bool removes_section() const { return change.key == nullptr; }
  bool removes_key() const { return change.value == nullptr; }
};

// The new key line stands on a line of its own even if the last line had no end.
void put_key_line(Rewrite *rewrite) {
  Output &output = rewrite->output;
  if (output.line_open) output.put("\n");
  output.put(rewrite->change.key);
  output.put("=");
  output.put(rewrite->change.value);
  output.put("\n");
}

void put_blank_lines(Rewrite *rewrite) {
  for (; rewrite->blank_lines != 0; --rewrite->blank_lines) rewrite->output.put("\n");
}

// A header line names the text between "[" and the first "]"; what follows a "]" in the wanted name
// can stand in no header and does not count.
bool is_wanted_header(const Rewrite &rewrite, std::string_view text) {
  const size_t close = text.find(']');
  if (text.empty() || text.front() != '[' || close == std::string_view::npos) return false;
  const std::string_view wanted = rewrite.change.section;
  return equal_names(part(text, 1, close - 1), part(wanted, 0, wanted.find(']')));
}

bool is_blank(std::string_view text) {
  for (const char character : text) {
    if (!is_white(character)) return false;
  }
  return true;
}

// text is the line without its line end, up to a zero byte: what the reader sees of it.
void take_line_inside(Rewrite *rewrite, std::string_view line, std::string_view text) {
  Output &output = rewrite->output;
  const bool ends_section = !text.empty() && text.front() == '[';
  if (ends_section) {
    rewrite->phase = Phase::kDone;
    if (!rewrite->removes_section() && !rewrite->removes_key()) put_key_line(rewrite);
    put_blank_lines(rewrite);
    output.put(line);
    return;
  }
  if (rewrite->removes_section()) return;
  if (is_blank(line)) {
    if (!rewrite->removes_key()) ++rewrite->blank_lines;
    return;
  }
  put_blank_lines(rewrite);
  if (!equal_names(part(text, 0, text.find('=')), rewrite->change.key)) {
    output.put(line);
    return;
  }
  if (rewrite->removes_key()) return;
  rewrite->phase = Phase::kDone;
  put_key_line(rewrite);
}

void take_line(Rewrite *rewrite, std::string_view line) {
  std::string_view text = part(line, 0, line.find('\0'));
  if (!text.empty() && text.back() == '\n') text.remove_suffix(1);
  if (rewrite->phase == Phase::kInside) {
    take_line_inside(rewrite, line, text);
    return;
  }
  if (rewrite->phase == Phase::kBefore && is_wanted_header(*rewrite, text)) {
    rewrite->phase = Phase::kInside;
    if (rewrite->removes_section()) return;
  }
  rewrite->output.put(line);
}

void take_end(Rewrite *rewrite) {
  if (rewrite->phase == Phase::kDone || rewrite->removes_section() || rewrite->removes_key()) {
    return;
  }
  if (rewrite->phase == Phase::kBefore) {
    Output &output = rewrite->output;
    if (output.line_open) output.put("\n");
    output.put("\n[");
    output.put(rewrite->change.section);
    output.put("]\n");
  }
  put_key_line(rewrite);
}

// Whether all of the old file was read and all of the new one taken by its stream.
psp_status rewrite_lines(psp_stream *input, Rewrite *rewrite) {
  streams::Line line = {};
  streams::LineResult result = streams::read_whole_line(input, &line);
  while (result == streams::LineResult::kRead && !rewrite->output.failed) {
    take_line(rewrite, {line.text, line.length});
    result = streams::read_whole_line(input, &line);
  }
  psp_freeMem(line.text, nullptr);
  if (result == streams::LineResult::kNoMemory) return PSP_ERR_NOMEMORY;
  if (result != streams::LineResult::kFileEnd) return PSP_ERR_REPLACEFILE;
  take_end(rewrite);
  return rewrite->output.failed ? PSP_ERR_REPLACEFILE : PSP_OKAY;
}

// Makes what was written durable. The last error is the only sign that a sync failed.
bool settle(const Output &output, const char *temporary, uint16_t mode) {
  os::set_last_error(0);
  if (psp_fflush(output.stream) != 0 || os::last_error() != 0) return false;
  return psp_fileLengthStat(temporary, mode) == output.file_bytes;
}

// ---- The files ----------------------------------------------------------------------------------

// The name of the temporary file; null when memory is short. It must stand beside the file, on the
// same file system, for the replacement to be one step: either separator counts.
char *make_temporary_name(const char *file) {
  const size_t directory_bytes = files::directory_bytes(file);
  const size_t bytes = add_or_most(directory_bytes, sizeof kTemporaryName);
  auto *temporary =
      static_cast<char *>(psp_getMem(bytes, nullptr, PSP_MEM_ALLOC, nullptr, kSource, __LINE__));
  if (temporary == nullptr) return nullptr;
  std::memcpy(temporary, file, directory_bytes);
  std::memcpy(temporary + directory_bytes, kTemporaryName, sizeof kTemporaryName);
  return temporary;
}

// A file that is the temporary file itself, by name or by a link, would go as one that was left. So
// may a file of which that cannot be told.
bool is_temporary_itself(const char *file, const char *temporary, uint16_t mode) {
  if (in_store(mode)) return equal_names(file, temporary);
  bool same = os::names_are_equal(file, temporary);
  return same || os::names_lead_to_same_file(file, temporary, &same) != 0 || same;
}

// Another process that updates a file of the directory is waited for, a while.
psp_stream *open_temporary(const char *temporary, const char *file, uint16_t mode) {
  for (int tries = 1;; ++tries) {
    psp_stream *stream = streams::open_replacement(temporary, file, mode);
    if (stream != nullptr || tries == kTemporaryTries ||
        os::file_condition(os::last_error()) != os::Condition::kSharingViolation) {
      return stream;
    }
    os::sleep_milliseconds(1);
  }
}

psp_status rewrite_file(const char *file, psp_stream *stream, const char *temporary,
                        const Change &change, uint16_t mode) {
  psp_stream *input = psp_fopenEx(file, "r", 0, mode);
  if (input == nullptr) return PSP_ERR_NOFILE;
  Rewrite rewrite = {change, {stream}};
  psp_status status = rewrite_lines(input, &rewrite);
  if (status == PSP_OKAY && !settle(rewrite.output, temporary, mode)) status = PSP_ERR_REPLACEFILE;
  const os::LastErrorKeeper keeper;
  psp_fclose(input);
  return status;
}

// The open temporary file keeps other processes from updating files of the directory, so it is
// opened before the file is read and closed when it has the file's name, or none: no update of
// another is overwritten. The store belongs to one process, and moves no file that is open.
psp_status update_through(const char *file, const char *temporary, const Change &change,
                          uint16_t mode) {
  if (is_temporary_itself(file, temporary, mode)) return PSP_ERR_NOFILE;
  psp_stream *stream = open_temporary(temporary, file, mode);
  if (stream == nullptr) return PSP_ERR_NOFILE;
  psp_status status = rewrite_file(file, stream, temporary, change, mode);
  if (in_store(mode)) {
    psp_fclose(stream);
    stream = nullptr;
  }
  if (status == PSP_OKAY && files::replace_file(temporary, file, mode) != PSP_OKAY) {
    status = PSP_ERR_REPLACEFILE;
  }
  const os::LastErrorKeeper keeper;
  if (status != PSP_OKAY) psp_fileRemoveEx(temporary, mode);
  psp_fclose(stream);
  return status;
}

}  // namespace

psp_status update_file(const char *file, const Change &change, uint16_t mode) {
  // A link stays, and what it leads to is updated.
  char target[kTargetBytes];
  if (!in_store(mode)) {
    if (os::link_target(file, target, sizeof target) != 0) return PSP_ERR_NOFILE;
    file = target;
  }
  char *temporary = make_temporary_name(file);
  if (temporary == nullptr) return PSP_ERR_NOMEMORY;
  const psp_status status = update_through(file, temporary, change, mode);
  const os::LastErrorKeeper keeper;
  psp_freeMem(temporary, nullptr);
  return status;
}

}  // namespace psp::ini
