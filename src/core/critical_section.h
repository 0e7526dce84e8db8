// The process-wide critical section for a scope.
//
// Included by the modules that set something up once.
#pragma once

#include "psp.h"

namespace psp::core {

class CriticalSection {
 public:
  CriticalSection() { psp_enterCritSec(); }
  ~CriticalSection() { psp_exitCritSec(); }
  CriticalSection(const CriticalSection &) = delete;
  CriticalSection &operator=(const CriticalSection &) = delete;
};

}  // namespace psp::core
