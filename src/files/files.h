// What the files family offers to the other modules of the library beside its exported functions.
//
// Included by the modules of files/ and by ini/.
#pragma once

#include "psp.h"

namespace psp::files {

// Gives the file `replacement` the name of the existing file `name`, which goes. Where the platform
// can, in one step that survives a crash: the name leads to one of the two files at any moment.
// Both are on the side (disk or store) that the mode word tells. PSP_OKAY, PSP_FAILED or
// PSP_NOMEMORY; after a failure both files are as they were. Refused in read-only and no-disk mode
// on the disk.
psp_status replace_file(const char *replacement, const char *name, uint16_t mode);

// Whether a name matches a pattern, without regard to the case of letters: "?" is one character,
// "*" any number; the character after a "*" is taken literally.
bool matches_pattern(const char *name, const char *pattern);

}  // namespace psp::files
