// The platform layer's functions as a table, for faulty_os.cpp. Like the layer's second copy, this
// file is compiled with -Dos=real_os, so that psp::os is psp::real_os here and in no other file.
#include "os/os.h"
#include "support/os_functions.h"

namespace psp::faults {

using AnyFunction = void (*)();

extern const AnyFunction real_functions[];

#define PSP_ADDRESS(name, ...) reinterpret_cast<AnyFunction>(&psp::os::name),
const AnyFunction real_functions[] = {PSP_OS_FUNCTIONS(PSP_ADDRESS)};

}  // namespace psp::faults
