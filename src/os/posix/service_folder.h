// A folder of small files, in which the installation counters and the units of services lie.
//
// Included by the service files of this folder.
#pragma once

#include <cstddef>
#include <string_view>

#include "os/os.h"

namespace psp::os {

inline constexpr size_t kFileNameBytes = 256;

// A folder of small files that everybody may read. While the object lives, no other one of any
// process has the same folder open.
class LockedFolder {
 public:
  LockedFolder() = default;
  LockedFolder(const LockedFolder &) = delete;
  LockedFolder &operator=(const LockedFolder &) = delete;
  ~LockedFolder();

  Error open(const char *path);
  // Gives the file its content in one durable step. replaces false: fails if there is one.
  Error put(const char *name, std::string_view content, bool replaces);
  Error remove(const char *name);

 private:
  Error write_new(const char *name, std::string_view content) const;
  Error sync() const;

  int fd_ = -1;
};

}  // namespace psp::os
