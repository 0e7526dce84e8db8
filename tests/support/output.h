// What the library tells on the standard output.
#pragma once

#include <gtest/gtest.h>

#include <string>

#include "psp.h"

namespace psp::tests {

// What the C runtime's standard output got while work ran.
template <class Work>
std::string output_of(Work work) {
  testing::internal::CaptureStdout();
  work();
  psp_log_flush();
  return testing::internal::GetCapturedStdout();
}

}  // namespace psp::tests
