// Where the service manager and the library keep what belongs to services.
//
// The tests put a folder and a program of their own in these places; nothing else changes them.
// Included by the service files of this folder.
#pragma once

namespace psp::os {

struct ServicePlaces {
  const char *counters;      // the folder of the installation counters
  const char *units;         // the folder of the administrator's units
  const char *manager_sign;  // a folder that exists while systemd is the manager
  const char *systemctl;     // its command
};

extern constinit ServicePlaces service_places;

}  // namespace psp::os
