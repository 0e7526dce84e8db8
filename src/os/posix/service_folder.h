// Folders of small files, in which the installation counters and the units of services lie, and the
// lock under which all of them are changed.
//
// Included by the service files of this folder.
#pragma once

#include "os/posix/posix.h"
// posix.h comes before every system header.
#include <cstddef>
#include <string_view>

namespace psp::os {

inline constexpr size_t kFileNameBytes = 256;

// One holder at a time among all processes, and among the threads of each. The kernel releases the
// lock with its holder's process; so that a thread leaves it behind no other way, the holder cannot
// be cancelled. It lies in the folder of the counters.
class ServicesLock {
 public:
  ServicesLock() = default;
  ServicesLock(const ServicesLock &) = delete;
  ServicesLock &operator=(const ServicesLock &) = delete;
  ~ServicesLock();

  Error enter();

 private:
  const CancellationPause pause_;
  int fd_ = -1;
};

// A folder of small files that everybody may read. It is changed under the lock above.
class Folder {
 public:
  Folder() = default;
  Folder(const Folder &) = delete;
  Folder &operator=(const Folder &) = delete;
  ~Folder();

  Error open(const char *path);
  // Gives the file its content in one durable step; if that fails, all is as it was. replaces
  // false: fails if there is one.
  Error put(const char *name, std::string_view content, bool replaces);
  Error remove(const char *name);

 private:
  Error write_new(const char *name, std::string_view content) const;
  Error name_new(const char *temporary, const char *name) const;
  Error replace(const char *temporary, const char *name) const;
  Error sync() const;

  int fd_ = -1;
};

// service_counter_add under the lock above.
Error add_to_counter(const char *name, int32_t change);

}  // namespace psp::os
