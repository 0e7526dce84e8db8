// The proof that a directory of the in-memory store is whole.
#pragma once

#include "memstore/pspmdir.h"

namespace psp::memstore {

// Proves the invariants of the whole directory: order, fill, depth, every page accounted for once,
// chains and free lists whole. Null, or what is wrong first. Takes the directory's lock itself.
const char *mdir_check(SegmentedFile *file);

}  // namespace psp::memstore
