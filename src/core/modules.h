// Start and stop of each module with state. psp.cpp calls them in the order of its table; nobody
// else does. A start that fails leaves its module as it was before. Stops cannot fail.
#pragma once

#include "psp.h"

namespace psp::core {

psp_status sync_start();
void sync_stop();

psp_status memory_start();
void memory_stop();

psp_status files_start();
void files_stop();

// Releases the name of the temporary directory, if it was looked for.
void temporary_directory_stop();

// The in-memory file store; its stop ends every file and directory in it.
psp_status store_start();
void store_stop();

psp_status channels_start();
void channels_stop();

// Releases the wide answers that psp_getenvW and psp_setlocaleW have handed out.
void environment_stop();

}  // namespace psp::core
