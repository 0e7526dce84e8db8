// What the files family offers to the other modules of the library beside its exported functions.
//
// Included by the modules of files/ and by ini/.
#pragma once

#include "os/os.h"
#include "psp.h"

namespace psp::files {

// A refusal of the library's own: the last error tells it like one of the platform's.
inline os::Error refuse(os::Refusal refusal) {
  const os::Error error = os::refusal_code(refusal);
  os::set_last_error(error);
  return error;
}

// Calls work with the wide name in UTF-8; gives `failure` where it cannot be converted.
template <class Result, class Work>
Result with_narrow(const psp_wchar *name, Result failure, Work &&work) {
  refuse(os::Refusal::kInvalidArgument);  // which a conversion that runs out of memory replaces
  char *narrow = name == nullptr ? nullptr : psp_convertToUTF8(name, PSP_UTF8_STRICT);
  if (narrow == nullptr) return failure;
  const Result result = work(narrow);
  os::LastErrorKeeper keeper;
  psp_freeMem(narrow, nullptr);
  return result;
}

// psp_fileOpen for writing a new file, whose name is to become that of the existing file
// `replaced`; it has the access of that file, and nobody else writes it or takes its name until it
// is closed (os::file_create_replacement). In the store: an empty file.
PSP_FH open_replacement(const char *name, const char *replaced, uint16_t mode);

// The bytes of a name up to and with its last separator, of either kind; 0 without one.
inline size_t directory_bytes(const char *name) {
  size_t bytes = 0;
  for (size_t index = 0; name[index] != '\0'; ++index) {
    if (name[index] == '\\' || name[index] == '/') bytes = index + 1;
  }
  return bytes;
}

// Gives the file `replacement` the name of the existing file `name`, which goes. Where the platform
// can, in one step that survives a crash: the name leads to one of the two files at any moment.
// Both are on the side (disk or store) that the mode word tells; on the disk the replacement may be
// open. PSP_OKAY, PSP_FAILED or
// PSP_NOMEMORY; after a failure both files are as they were. Refused in read-only and no-disk mode
// on the disk.
psp_status replace_file(const char *replacement, const char *name, uint16_t mode);

// Whether a name matches a pattern, without regard to the case of letters: "?" is one character,
// "*" any number; the character after a "*" is taken literally.
bool matches_pattern(const char *name, const char *pattern);

}  // namespace psp::files
