// The update of an INI file: it is written anew beside itself and replaced in one step.
//
// Included by pspini.cpp.
#pragma once

#include "psp.h"

namespace psp::ini {

// What to change. Texts are the caller's.
struct Change {
  const char *section;  // not null
  const char *key;      // null: remove the section
  const char *value;    // null: remove the key
};

// PSP_OKAY; PSP_ERR_NOMEMORY; PSP_ERR_NOFILE when the file or the temporary file cannot be opened;
// PSP_ERR_REPLACEFILE when the new file could not be made whole or not take the old one's place.
// The file is the old one or the new one at any moment.
psp_status update_file(const char *file, const Change &change, uint16_t mode);

}  // namespace psp::ini
