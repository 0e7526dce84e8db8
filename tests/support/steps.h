// What a crash can leave of a run of calls: a recorder of the steps that change files, and the end
// of the process before a chosen step.
//
// Every call that a fault could hit counts here before it is made. One thread at a time.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "support/faults.h"

namespace psp::faults {

// One change of a file: the call, the file's name, and what else it takes.
struct Step {
  Os call;
  std::string name;
  std::string data;  // of a write; of a replacement the new name
  int64_t offset = 0;
};

inline std::vector<Step> *recorded = nullptr;  // where steps go; null: nowhere
inline uint32_t calls_until_kill = 0;          // the process kills itself at this one; 0: at none

// Notes a call that will be made, and does all it is asked for.
template <Os kCall>
void record(const char *name, const auto &...) {
  recorded->push_back({kCall, name, {}});
}
template <Os kCall>
void record(const char *name, const char *other, const auto &...) {
  recorded->push_back({kCall, name, other});
}
template <Os kCall>
void record(os::File *file, const void *buffer, uint32_t count, uint32_t *) {
  recorded->push_back({kCall, {}, {static_cast<const char *>(buffer), count}, file->position});
}
template <Os kCall>
void record(os::File *, int64_t offset, const void *buffer, uint32_t count, uint32_t *) {
  recorded->push_back({kCall, {}, {static_cast<const char *>(buffer), count}, offset});
}
template <Os kCall>
void record(os::File *, const auto &...sizes) {
  recorded->push_back({kCall, {}, {}, (int64_t{0} + ... + sizes)});
}

constexpr bool changes_files(Os call) {
  return call == Os::file_create_replacement || call == Os::file_write ||
         call == Os::file_write_at || call == Os::file_cut || call == Os::file_sync ||
         call == Os::file_replace || call == Os::file_rename || call == Os::file_remove ||
         call == Os::directory_create || call == Os::directory_remove;
}

}  // namespace psp::faults
