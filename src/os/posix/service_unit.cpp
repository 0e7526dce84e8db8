// Installing and removing services of systemd: a unit file each, and the commands of systemctl.
//
// Owns nothing. Commands get their arguments as a vector; no shell reads a name. What a caller
// names becomes part of a unit file only in a form that the manager reads as that text: odd
// characters of the service's name are escaped as the manager itself escapes them, words of the
// command line are quoted, and control characters, which could begin a line, are refused.
//
// The whole of a creation or a deletion lies under the lock of services: what one undoes is its
// own.
//
// A crash inside service_create leaves nothing, or a count that is too high, which does no harm, or
// the unit, perhaps not yet enabled; one inside service_delete leaves the unit, stopped, or
// nothing. service_delete cleans up in each case.
#include "os/posix/posix.h"
// posix.h comes before every system header.
#include <fcntl.h>
#include <stdio.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <string_view>

#include "os/posix/service_folder.h"
#include "os/posix/service_places.h"
#include "text/ascii.h"

namespace psp::os {
namespace {

// No line may be longer on other platforms either; most of a unit is its command line.
constexpr size_t kUnitBytes = 1 << 16;
constexpr char kUnitSuffix[] = ".service";
constexpr size_t kUnitNameBytes = kFileNameBytes - 5;  // leaves room for the temporary file's name

using UnitName = char[kUnitNameBytes];

bool is_control(char c) { return static_cast<unsigned char>(c) < ' ' || c == 0x7F; }

bool is_one_of(char c, std::string_view set) { return set.find(c) != set.npos; }

// Separators and control characters are refused; so different names have different units.
Error unit_name(const char *name, UnitName &unit) {
  if (*name == '\0') return fail(EINVAL);
  size_t length = 0;
  for (const char *c = name; *c != '\0'; ++c) {
    if (is_control(*c) || is_one_of(*c, "/\\")) return fail(EINVAL);
    if (length + 4 + sizeof kUnitSuffix > kUnitNameBytes) return fail(ENAMETOOLONG);
    const bool plain =
        text::is_letter_or_digit(*c) || is_one_of(*c, ":_-") || (*c == '.' && c != name);
    if (plain) {
      unit[length++] = *c;
    } else {
      snprintf(unit + length, 5, "\\x%02x", static_cast<unsigned char>(*c));
      length += 4;
    }
  }
  memcpy(unit + length, kUnitSuffix, sizeof kUnitSuffix);
  return 0;
}

// ---- The unit file ------------------------------------------------------------------------------

// A text of limited length; what does not fit is told at the end.
class UnitText {
 public:
  UnitText() : text_(static_cast<char *>(std::malloc(kUnitBytes))) {}
  UnitText(const UnitText &) = delete;
  UnitText &operator=(const UnitText &) = delete;
  ~UnitText() { std::free(text_); }

  void add(char c) {
    if (text_ == nullptr || length_ == kUnitBytes) {
      whole_ = false;
    } else {
      text_[length_++] = c;
    }
  }
  void add(std::string_view part) {
    for (const char c : part) add(c);
  }

  Error problem() const { return text_ == nullptr ? ENOMEM : whole_ ? 0 : E2BIG; }
  std::string_view text() const { return {text_, length_}; }

 private:
  char *text_;
  size_t length_ = 0;
  bool whole_ = true;
};

// A text on the rest of a line. A backslash at its end would join the next line to it.
void add_title(UnitText *unit, const char *title) {
  for (const char *c = title; *c != '\0'; ++c) {
    if (*c == '%') unit->add('%');
    unit->add(is_control(*c) ? ' ' : *c);
  }
  if (*title != '\0' && title[strlen(title) - 1] == '\\') unit->add(' ');
}

bool is_plain_word(std::string_view word) {
  for (const char c : word) {
    if (!text::is_letter_or_digit(c) && !is_one_of(c, "/._-+=:,@")) return false;
  }
  return !word.empty();
}

// specials: the characters that stand for themselves when they are doubled.
void add_word(UnitText *unit, std::string_view word, std::string_view specials) {
  if (is_plain_word(word)) return unit->add(word);
  unit->add('"');
  for (const char c : word) {
    if (is_one_of(c, "\"\\")) unit->add('\\');
    if (is_one_of(c, specials)) unit->add(c);
    unit->add(c);
  }
  unit->add('"');
}

constexpr std::string_view kProgramSpecials = "%";
constexpr std::string_view kArgumentSpecials = "%$";

// What the manager would refuse is no program: a text whose first character means something to it,
// a folder, a path that is not absolute. A bare name is one that the manager looks for.
bool is_program(std::string_view name) {
  if (name.empty() || name.size() >= PATH_MAX || is_one_of(name[0], " @-:+!|\"")) return false;
  if (is_one_of(name.back(), "/\\")) return false;
  return is_one_of(name[0], "/\\") || name.find_first_of("/\\") == name.npos;
}

// The program: a name in quotes, or the whole text.
Error add_program(UnitText *unit, std::string_view program) {
  if (program.size() >= 2 && program.front() == '"' && program.back() == '"') {
    program = {program.data() + 1, program.size() - 2};
  }
  if (!is_program(program)) return fail(EINVAL);
  NameBuffer buffer;
  for (size_t index = 0; index < program.size(); ++index) {
    buffer[index] = program[index] == '\\' ? '/' : program[index];
  }
  add_word(unit, {buffer, program.size()}, kProgramSpecials);
  return 0;
}

// Takes the next argument from the text, by the rules of the platform on which command lines are
// single texts: blanks end an argument, quotes keep them inside it, and backslashes stand for
// themselves but before a quote, where each pair is one and an odd one makes the quote a character.
std::string_view take_argument(std::string_view *rest, char *buffer) {
  size_t length = 0;
  bool quoted = false;
  size_t at = 0;
  for (; at < rest->size(); ++at) {
    const char c = (*rest)[at];
    if (!quoted && is_one_of(c, " \t")) break;
    size_t backslashes = 0;
    while (at + backslashes < rest->size() && (*rest)[at + backslashes] == '\\') ++backslashes;
    if (backslashes > 0) {
      at += backslashes;
      const bool before_quote = at < rest->size() && (*rest)[at] == '"';
      for (size_t n = before_quote ? backslashes / 2 : backslashes; n > 0; --n) {
        buffer[length++] = '\\';
      }
      if (before_quote && backslashes % 2 == 1) {
        buffer[length++] = '"';
      } else {
        --at;
      }
    } else if (c == '"') {
      quoted = !quoted;
    } else {
      buffer[length++] = c;
    }
  }
  rest->remove_prefix(at);
  return {buffer, length};
}

Error add_arguments(UnitText *unit, std::string_view rest) {
  char *buffer = static_cast<char *>(std::malloc(rest.size() + 1));
  if (buffer == nullptr) return fail(ENOMEM);
  for (;;) {
    const size_t start = rest.find_first_not_of(" \t");
    if (start == rest.npos) break;
    rest.remove_prefix(start);
    unit->add(' ');
    add_word(unit, take_argument(&rest, buffer), kArgumentSpecials);
  }
  std::free(buffer);
  return 0;
}

// On other platforms the stop control reaches the service alone, none of its children. A program
// that does not call psp_serviceStart in time is ended, lest the start of the system wait for it;
// once it has called, it may take as long as it likes to be ready (service.cpp). A stop that takes
// a quarter of an hour is given up.
constexpr std::string_view kFixedSettings =
    "KillMode=mixed\n"
    "TimeoutStartSec=90\n"
    "TimeoutStopSec=900\n"
    "\n"
    "[Install]\n"
    "WantedBy=multi-user.target\n";

Error compose_unit(UnitText *unit, const ServiceSetup &setup) {
  const std::string_view line = setup.command_line;
  for (const char c : line) {
    if (is_control(c) && c != '\t') return fail(EINVAL);
  }
  unit->add("[Unit]\nDescription=");
  add_title(unit, setup.display_name);
  if (setup.description != nullptr) {
    unit->add(" - ");
    add_title(unit, setup.description);
  }
  unit->add("\n\n[Service]\nType=notify\nExecStart=");
  Error error = add_program(unit, {line.data(), setup.program_bytes});
  if (error == 0) error = add_arguments(unit, line.data() + setup.program_bytes);
  if (error != 0) return error;
  unit->add("\n");
  unit->add(kFixedSettings);
  error = unit->problem();
  return error == 0 ? 0 : fail(error);
}

// ---- Commands -----------------------------------------------------------------------------------

enum class Option { kNone, kNoBlock };

// One command to the manager; unit may be null.
Error manage(const char *verb, const char *unit, Option option = Option::kNone) {
  const char *arguments[8] = {service_places.systemctl, "--no-ask-password", "--quiet"};
  size_t count = 3;
  if (option == Option::kNoBlock) arguments[count++] = "--no-block";
  arguments[count++] = verb;
  if (unit != nullptr) {
    arguments[count++] = "--";
    arguments[count++] = unit;
  }
  return run_command(arguments) == 0 ? 0 : fail(EIO);
}

Error remove_unit(const char *unit) {
  Folder folder;
  const Error error = folder.open(service_places.units);
  return error == 0 ? folder.remove(unit) : error;
}

// A unit that starts with the system, or none.
Error make_unit(const char *unit, std::string_view text) {
  Folder folder;
  Error error = folder.open(service_places.units);
  if (error == 0) error = folder.put(unit, text, false);
  if (error != 0) return error;
  error = manage("daemon-reload", nullptr);
  if (error == 0) error = manage("enable", unit);
  if (error == 0) return 0;
  manage("disable", unit);
  folder.remove(unit);
  manage("daemon-reload", nullptr);
  return fail(error);
}

}  // namespace

Error service_manager_open() {
  struct stat sign = {};
  if (stat(service_places.manager_sign, &sign) == -1) return last_error();
  return faccessat(AT_FDCWD, service_places.units, W_OK, AT_EACCESS) == -1 ? last_error() : 0;
}

// The manager is asked for the name first: a unit of the administrator's hides one of the system's.
Error service_create(const ServiceSetup &setup) {
  UnitName unit;
  UnitText text;
  Error error = unit_name(setup.name, unit);
  if (error == 0) error = compose_unit(&text, setup);
  if (error != 0) return error;
  ServicesLock lock;
  error = lock.enter();
  if (error != 0) return error;
  if (manage("cat", unit) == 0) return fail(EEXIST);
  const bool is_counted = add_to_counter(setup.counter, 1) == 0;
  error = make_unit(unit, text.text());
  if (error == 0) return 0;
  if (is_counted) add_to_counter(setup.counter, -1);
  return fail(error);
}

Error service_start(const char *name) {
  UnitName unit;
  const Error error = unit_name(name, unit);
  return error == 0 ? manage("start", unit, Option::kNoBlock) : error;
}

Error service_find(const char *name) {
  UnitName unit;
  const Error error = unit_name(name, unit);
  if (error != 0) return error;
  NameBuffer path;
  const int length = snprintf(path, sizeof path, "%s/%s", service_places.units, unit);
  if (static_cast<size_t>(length) >= sizeof path) return fail(ENAMETOOLONG);
  struct stat status = {};
  return lstat(path, &status) == -1 ? last_error() : 0;
}

// Waits until the service has ended or the manager has given it up; but not inside a service, which
// could wait for its own end. Not under the lock either: others need not wait for the service.
Error service_stop(const char *name) {
  UnitName unit;
  const Error error = unit_name(name, unit);
  if (error != 0) return error;
  return manage("stop", unit, is_serving() ? Option::kNoBlock : Option::kNone);
}

// The unit that is gone decides; what the manager still remembers of it goes with its next reload.
Error service_delete(const char *name) {
  UnitName unit;
  Error error = unit_name(name, unit);
  if (error != 0) return error;
  ServicesLock lock;
  error = lock.enter();
  if (error != 0) return error;
  manage("disable", unit);
  error = remove_unit(unit);
  if (error != 0) return error;
  const LastErrorKeeper keeper;
  manage("daemon-reload", nullptr);
  manage("reset-failed", unit);
  return 0;
}

}  // namespace psp::os
