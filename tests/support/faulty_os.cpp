// The platform layer of the fault tests: each function of os.h forwards to the real one, unless it
// is to fail. A function fails before it has done anything, save the close, which frees its
// descriptor whatever it returns.
#include <cstdlib>
#include <type_traits>

#include "support/faults.h"
#include "support/steps.h"

namespace psp::faults {

using AnyFunction = void (*)();
extern const AnyFunction real_functions[];

namespace {

// Codes for conditions that the platform has no code of its own for.
constexpr os::Error kMadeUpCodes = 0x7FFF0000;

template <class Result>
Result failure(os::Error error) {
  if constexpr (std::is_same_v<Result, os::Error>) {
    return error;
  } else if constexpr (std::is_same_v<Result, os::WaitResult>) {
    return os::WaitResult::kFailed;
  } else {
    return Result{};
  }
}

template <Os kFunction, class Result, class... Parameters>
Result call(Result (*)(Parameters...), std::type_identity_t<Parameters>... arguments) {
  auto real =
      reinterpret_cast<Result (*)(Parameters...)>(real_functions[static_cast<size_t>(kFunction)]);
  count_call(kFunction);
  if constexpr (static_cast<int>(kFunction) < kFallible) {
    os::Error error = 0;
    if (fails(kFunction, &error)) {
      if constexpr (kFunction == Os::file_close) real(arguments...);
      os::set_last_error(error);
      return failure<Result>(error);
    }
  }
  if constexpr (changes_files(kFunction)) {
    if (recorded != nullptr) record<kFunction>(arguments...);
  }
  const InPlatform inside;
  if constexpr (kFunction == Os::reserve_pages) {
    Result pages = real(arguments...);
    if (pages != nullptr) note_pages(1);
    return pages;
  } else {
    if constexpr (kFunction == Os::release_pages) note_pages(-1);
    if constexpr (kFunction == Os::file_condition) {
      const os::Error error = (arguments, ...);
      if (error >= kMadeUpCodes) return static_cast<os::Condition>(error - kMadeUpCodes);
    }
    return real(arguments...);
  }
}

}  // namespace

os::Error error_of(os::Condition condition) {
  constexpr os::Error kLargestCode = 20000;
  for (os::Error error = 1; error < kLargestCode; ++error) {
    if (os::file_condition(error) == condition) return error;
  }
  return kMadeUpCodes + static_cast<os::Error>(condition);
}

}  // namespace psp::faults

namespace psp::os {

using faults::Os;

#define PSP_FORWARD(name, result, parameters, ...) \
  result name parameters { return faults::call<Os::name>(&name __VA_OPT__(, ) __VA_ARGS__); }
PSP_OS_FALLIBLE(PSP_FORWARD)
PSP_OS_OTHERS(PSP_FORWARD)

#define PSP_FORWARD_END(name, result, parameters, ...)        \
  result name parameters {                                    \
    faults::call<Os::name>(&name __VA_OPT__(, ) __VA_ARGS__); \
    std::abort();                                             \
  }
PSP_OS_ENDS(PSP_FORWARD_END)

#define PSP_FORWARD_TRANSFER(name, result, parameters, ...) \
  result name parameters {                                  \
    if (faults::shortens(Os::name, count)) count /= 2;      \
    return faults::call<Os::name>(&name, __VA_ARGS__);      \
  }
PSP_OS_TRANSFERS(PSP_FORWARD_TRANSFER)

}  // namespace psp::os
