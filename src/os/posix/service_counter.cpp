// Installation counters: a folder with one small text file a name, each replaced in one step.
//
// Owns nothing. Additions of all processes follow one another under the lock of services; readers
// take no lock. A crash leaves the old count or the new one.
#include "os/posix/posix.h"
// posix.h comes before every system header.
#include <fcntl.h>
#include <stdio.h>
#include <unistd.h>

#include <algorithm>
#include <charconv>

#include "os/posix/service_folder.h"
#include "os/posix/service_places.h"
#include "text/ascii.h"

namespace psp::os {

namespace {

constexpr size_t kCountBytes = 16;  // a number of 32 bits, its line end, a zero byte

bool is_plain(char c) { return text::is_letter_or_digit(c) || c == '_' || c == '-' || c == '.'; }

// A name as a file name: what could mean something else there stands as %XX, so that different
// names have different files and none is hidden, another folder, or a temporary file.
Error counter_file(const char *name, char (&file)[kFileNameBytes]) {
  if (*name == '\0') return fail(EINVAL);
  size_t length = 0;
  for (const char *c = name; *c != '\0'; ++c) {
    if (length + 4 > kFileNameBytes) return fail(ENAMETOOLONG);
    if (is_plain(*c) && (*c != '.' || c != name)) {
      file[length++] = *c;
    } else {
      snprintf(file + length, 4, "%%%02X", static_cast<unsigned char>(*c));
      length += 3;
    }
  }
  file[length] = '\0';
  return 0;
}

Error parse_count(const char *text, uint32_t *count) {
  const char *end = text + strlen(text);
  const auto [stop, problem] = std::from_chars(text, end, *count);
  return problem == std::errc() && (stop == end || *stop == '\n') ? 0 : fail(EINVAL);
}

// A file is replaced whole, so that reading needs no lock, which ordinary users may not take.
Error read_count(const char *file, uint32_t *count) {
  NameBuffer path;
  const int length = snprintf(path, sizeof path, "%s/%s", service_places.counters, file);
  if (static_cast<size_t>(length) >= sizeof path) return fail(ENAMETOOLONG);
  const int fd = retry_interrupted([&] { return open(path, O_RDONLY | O_CLOEXEC); });
  if (fd == -1) return last_error();
  char text[kCountBytes] = {};
  const ssize_t got = retry_interrupted([&] { return read(fd, text, sizeof text - 1); });
  const Error error = got == -1 ? last_error() : 0;
  close(fd);
  return error == 0 ? parse_count(text, count) : fail(error);
}

}  // namespace

Error service_counter_read(const char *name, uint32_t *count) {
  char file[kFileNameBytes];
  const Error error = counter_file(name, file);
  return error == 0 ? read_count(file, count) : error;
}

Error add_to_counter(const char *name, int32_t change) {
  char file[kFileNameBytes];
  Error error = counter_file(name, file);
  if (error != 0) return error;
  Folder folder;
  error = folder.open(service_places.counters);
  if (error != 0) return error;
  uint32_t count = 0;
  if (read_count(file, &count) != 0) count = 0;
  const int64_t sum = std::clamp<int64_t>(int64_t{count} + change, 0, UINT32_MAX);
  char text[kCountBytes];
  const int length = snprintf(text, sizeof text, "%lld\n", static_cast<long long>(sum));
  return folder.put(file, {text, static_cast<size_t>(length)}, true);
}

Error service_counter_add(const char *name, int32_t change) {
  ServicesLock lock;
  const Error error = lock.enter();
  return error == 0 ? add_to_counter(name, change) : error;
}

}  // namespace psp::os
