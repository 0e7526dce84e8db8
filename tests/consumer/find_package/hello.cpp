#include <psp.h>

#include <memory>
#include <string>

// The header's types and macros as a C++ program uses them.
int main() {
  uint16_t major, minor, build;
  psp_version(&major, &minor, &build);
  if (major != PSP_VERSION_MAJOR || minor != PSP_VERSION_MINOR || build != PSP_VERSION_BUILD) {
    return 1;
  }
  if (psp_init() != PSP_OKAY) return 1;
  {
    const auto release = [](char *text) { psp_freeMem(text, nullptr); };
    std::unique_ptr<char, decltype(release)> text(psp_strdup("40 + 2 = ", nullptr), release);
    const psp_wchar *wide = PSP_W("42");
    char narrow[3];
    if (psp_wchar_to_utf8(narrow, wide, sizeof narrow, PSP_UTF8_STRICT) != 3) return 1;
    psp_printf("%s\n", (std::string(text.get()) + narrow).c_str());
  }
  psp_term();
}
