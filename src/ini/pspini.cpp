// Module pspini: values of INI files, from a store that is filled at a file's first use, and
// updates of the files.
//
// Owns the store and the INI lock, which is held for the whole of each lookup, update and reading,
// the work on files included. Below it come the locks of memory and of the log.
//
// The plain forms are the Ex forms on the disk; the W forms convert their strings and do the same.
#include <algorithm>
#include <cstring>

#include "core/checked.h"
#include "core/exported_call.h"
#include "core/sync.h"
#include "ini/ini_rewrite.h"
#include "ini/ini_store.h"

namespace psp::ini {
namespace {

constexpr char kSource[] = "pspini.cpp";

constexpr uint32_t kLeastBufferBytes = 2;

struct State {
  psp_sync lock = nullptr;  // null while the module is stopped
  Store store PSP_GUARDED_BY(lock) = {};
};

constinit State state;

// ---- Reading ------------------------------------------------------------------------------------

// The file's entry with what the file holds now; null when it could not be read, and then the store
// is as before.
File *read_file(const char *name, uint16_t mode) PSP_REQUIRES(state.lock) {
  Contents contents;
  if (!read_contents(name, mode, &contents)) return nullptr;
  File *file = put_contents(&state.store, name, mode, contents);
  if (file == nullptr) release_contents(&contents);
  return file;
}

// An entry without sections is read again at the next lookup.
void forget_file(const char *name, uint16_t mode) PSP_REQUIRES(state.lock) {
  File *file = find_file(&state.store, name, mode);
  if (file != nullptr) release_contents(&file->contents);
}

void read_or_forget(const char *name, uint16_t mode) {
  const core::SyncGuard guard(state.lock);
  if (read_file(name, mode) == nullptr) forget_file(name, mode);
}

// ---- Lookup -------------------------------------------------------------------------------------

// The caller's buffer, which receives texts with their zero bytes. Its last byte is kept for the
// zero byte of a result that was cut.
class Result {
 public:
  Result(char *buffer, uint32_t size) : buffer_(buffer), usable_(size - 1) { *buffer = '\0'; }

  // The text must be followed by its zero byte. False when it was cut.
  bool add(std::string_view text) {
    const size_t wanted = text.size() + 1;
    const size_t count = std::min(wanted, usable_ - used_);
    std::memcpy(buffer_ + used_, text.data(), count);
    used_ += count;
    return count == wanted;
  }

  psp_status finish() {
    const bool cut = used_ == usable_;
    buffer_[used_] = '\0';
    return cut ? PSP_ERR_BUFFERFULL : PSP_OKAY;
  }

 private:
  char *buffer_;
  size_t usable_;
  size_t used_ = 0;
};

psp_status find_result(const Contents &contents, const char *section_name, const char *key_name,
                       Result *result) {
  if (section_name == nullptr) {
    for (uint32_t number = 0; number < contents.section_count; ++number) {
      if (!result->add(name_of(contents, contents.sections[number]))) break;
    }
    return result->finish();
  }
  const Section *section = find_section(contents, section_name);
  if (section == nullptr) return PSP_FAILED;
  if (key_name == nullptr) {
    for (uint32_t number = 0; number < section->key_count; ++number) {
      if (!result->add(name_of(contents, contents.keys[section->first_key + number]))) break;
    }
    return result->finish();
  }
  const Key *key = find_key(contents, *section, key_name);
  if (key == nullptr) return PSP_FAILED;
  result->add(value_of(contents, *key));
  return result->finish();
}

// What the store holds of the file, which is read if need be; null when it cannot be.
const Contents *contents_of(const char *name, uint16_t mode) PSP_REQUIRES(state.lock) {
  const File *file = find_file(&state.store, name, mode);
  if (file == nullptr || file->contents.section_count == 0) file = read_file(name, mode);
  return file != nullptr ? &file->contents : nullptr;
}

psp_status get(const char *file, const char *section, const char *key, char *buffer, uint32_t size,
               uint16_t mode) {
  if (file == nullptr || buffer == nullptr || size < kLeastBufferBytes) return PSP_ERR_INVARG;
  const core::SyncGuard guard(state.lock);
  const Contents *contents = contents_of(file, mode);
  if (contents == nullptr) return PSP_ERR_NOFILE;
  Result result(buffer, size);
  return find_result(*contents, section, key, &result);
}

psp_status get_number(const char *file, const char *section_name, const char *key_name,
                      int32_t *number, uint16_t mode) {
  if (file == nullptr || section_name == nullptr || key_name == nullptr || number == nullptr) {
    return PSP_ERR_INVARG;
  }
  const core::SyncGuard guard(state.lock);
  const Contents *contents = contents_of(file, mode);
  if (contents == nullptr) return PSP_ERR_NOFILE;
  const Section *section = find_section(*contents, section_name);
  const Key *key = section != nullptr ? find_key(*contents, *section, key_name) : nullptr;
  if (key == nullptr) return PSP_FAILED;
  if (key->value_bytes > kNumberMaxBytes) return PSP_ERR_BUFFERFULL;
  *number = key->number;
  return PSP_OKAY;
}

// ---- Update -------------------------------------------------------------------------------------

psp_status set(const char *file, const Change &change, uint16_t mode) {
  if (file == nullptr || change.section == nullptr) return PSP_ERR_INVARG;
  const core::SyncGuard guard(state.lock);
  const psp_status status = update_file(file, change, mode);
  // Whatever the file holds now, the store must not go on with what it held before.
  if (status == PSP_OKAY && read_file(file, mode) == nullptr) forget_file(file, mode);
  return status;
}

// ---- Wide strings -------------------------------------------------------------------------------

// A wide argument in UTF-8; null when it cannot be converted.
class Narrow {
 public:
  explicit Narrow(const psp_wchar *wide) : text_(psp_convertToUTF8(wide, PSP_UTF8_STRICT)) {}
  ~Narrow() { psp_freeMem(text_, nullptr); }
  Narrow(const Narrow &) = delete;
  Narrow &operator=(const Narrow &) = delete;

  const char *get() const { return text_; }

 private:
  char *text_;
};

template <class... Texts>
bool any_is_null(const Texts *...texts) {
  return (... || (texts == nullptr));
}

psp_status read_wide(const psp_wchar *file, uint16_t mode) {
  const Narrow name(file);
  if (name.get() == nullptr) return PSP_ERR_NOMEMORY;
  const core::SyncGuard guard(state.lock);
  read_file(name.get(), mode);
  return PSP_OKAY;
}

// Looks up into UTF-8 text of four bytes for each unit of the caller's buffer.
psp_status get_wide_text(const char *file, const char *section, const char *key, char *text,
                         psp_wchar *buffer, uint32_t size, uint16_t mode) {
  const psp_status status = get(file, section, key, text, size * 4, mode);
  if (status != PSP_OKAY) return status;
  // Strict, and measured first: text that is not UTF-8 leaves the caller's buffer untouched.
  if (psp_utf8_to_wchar(nullptr, text, 0, PSP_UTF8_STRICT) < 0) return PSP_ERR_NOMEMORY;
  psp_utf8_to_wchar(buffer, text, size, PSP_UTF8_STRICT);
  return PSP_OKAY;
}

psp_status get_wide(const psp_wchar *file, const psp_wchar *section, const psp_wchar *key,
                    psp_wchar *buffer, uint32_t size, uint16_t mode) {
  if (any_is_null(file, section, key, buffer) || size < kLeastBufferBytes) return PSP_ERR_INVARG;
  const Narrow file_name(file), section_name(section), key_name(key);
  if (any_is_null(file_name.get(), section_name.get(), key_name.get())) return PSP_ERR_NOMEMORY;
  uint32_t text_bytes = 0;
  if (!checked_multiply(size, 4u, &text_bytes)) return PSP_ERR_NOMEMORY;
  auto *text = static_cast<char *>(
      psp_getMem(text_bytes, nullptr, PSP_MEM_ALLOC, nullptr, kSource, __LINE__));
  if (text == nullptr) return PSP_ERR_NOMEMORY;
  const psp_status status =
      get_wide_text(file_name.get(), section_name.get(), key_name.get(), text, buffer, size, mode);
  psp_freeMem(text, nullptr);
  return status;
}

psp_status get_number_wide(const psp_wchar *file, const psp_wchar *section, const psp_wchar *key,
                           int32_t *number, uint16_t mode) {
  if (any_is_null(file, section, key) || number == nullptr) return PSP_ERR_INVARG;
  const Narrow file_name(file), section_name(section), key_name(key);
  if (any_is_null(file_name.get(), section_name.get(), key_name.get())) return PSP_ERR_NOMEMORY;
  return get_number(file_name.get(), section_name.get(), key_name.get(), number, mode);
}

psp_status set_wide(const psp_wchar *file, const psp_wchar *section, const psp_wchar *key,
                    const psp_wchar *value, uint16_t mode) {
  if (any_is_null(file, section, key, value)) return PSP_ERR_INVARG;
  const Narrow file_name(file), section_name(section), key_name(key), text(value);
  if (any_is_null(file_name.get(), section_name.get(), key_name.get(), text.get())) {
    return PSP_ERR_NOMEMORY;
  }
  return set(file_name.get(), {section_name.get(), key_name.get(), text.get()}, mode);
}

}  // namespace
}  // namespace psp::ini

using namespace psp;
using core::exported_call;

// ---- Life of the module -------------------------------------------------------------------------

psp_status psp_iniInit(void) {
  return exported_call([] {
    if (core::is_sync_object(ini::state.lock)) return PSP_OKAY;
    psp_sync lock = core::sync_create(PSP_SYNC_EXCL, core::LockRank::kIni, ini::kSource, __LINE__);
    if (!core::is_sync_object(lock)) return PSP_FAILED;
    ini::state.lock = lock;
    return PSP_OKAY;
  });
}

void psp_iniTerm(void) {
  psp_iniCleanup();
  psp_syncDelete(ini::state.lock);
  ini::state.lock = nullptr;
}

void psp_iniCleanup(void) {
  exported_call([] {
    const core::SyncGuard guard(ini::state.lock);
    ini::release_store(&ini::state.store);
  });
}

// ---- Reading ------------------------------------------------------------------------------------

psp_status psp_readIniFile(const char *file) { return psp_readIniFileEx(file, 0); }

psp_status psp_readIniFileEx(const char *file, uint16_t mode) {
  if (file != nullptr) exported_call([&] { ini::read_or_forget(file, mode); });
  return PSP_OKAY;
}

psp_status psp_readIniFileW(const psp_wchar *file) { return psp_readIniFileExW(file, 0); }

psp_status psp_readIniFileExW(const psp_wchar *file, uint16_t mode) {
  if (file == nullptr) return PSP_ERR_INVARG;
  return exported_call([&] { return ini::read_wide(file, mode); });
}

// ---- Lookup -------------------------------------------------------------------------------------

psp_status psp_iniGet(const char *file, const char *section, const char *key, char *buffer,
                      uint32_t size) {
  return psp_iniGetEx(file, section, key, buffer, size, 0);
}

psp_status psp_iniGetEx(const char *file, const char *section, const char *key, char *buffer,
                        uint32_t size, uint16_t mode) {
  return exported_call([&] { return ini::get(file, section, key, buffer, size, mode); });
}

psp_status psp_iniGetW(const psp_wchar *file, const psp_wchar *section, const psp_wchar *key,
                       psp_wchar *buffer, uint32_t size) {
  return psp_iniGetExW(file, section, key, buffer, size, 0);
}

psp_status psp_iniGetExW(const psp_wchar *file, const psp_wchar *section, const psp_wchar *key,
                         psp_wchar *buffer, uint32_t size, uint16_t mode) {
  return exported_call([&] { return ini::get_wide(file, section, key, buffer, size, mode); });
}

psp_status psp_iniString(const char *file, const char *section, const char *key, char *buffer,
                         uint32_t size) {
  return psp_iniGetEx(file, section, key, buffer, size, 0);
}

psp_status psp_iniStringEx(const char *file, const char *section, const char *key, char *buffer,
                           uint32_t size, uint16_t mode) {
  return psp_iniGetEx(file, section, key, buffer, size, mode);
}

psp_status psp_iniStringW(const psp_wchar *file, const psp_wchar *section, const psp_wchar *key,
                          psp_wchar *buffer, uint32_t size) {
  return psp_iniGetExW(file, section, key, buffer, size, 0);
}

psp_status psp_iniStringExW(const psp_wchar *file, const psp_wchar *section, const psp_wchar *key,
                            psp_wchar *buffer, uint32_t size, uint16_t mode) {
  return psp_iniGetExW(file, section, key, buffer, size, mode);
}

psp_status psp_iniInt32(const char *file, const char *section, const char *key, int32_t *number) {
  return psp_iniInt32Ex(file, section, key, number, 0);
}

psp_status psp_iniInt32Ex(const char *file, const char *section, const char *key, int32_t *number,
                          uint16_t mode) {
  return exported_call([&] { return ini::get_number(file, section, key, number, mode); });
}

psp_status psp_iniInt32W(const psp_wchar *file, const psp_wchar *section, const psp_wchar *key,
                         int32_t *number) {
  return psp_iniInt32ExW(file, section, key, number, 0);
}

psp_status psp_iniInt32ExW(const psp_wchar *file, const psp_wchar *section, const psp_wchar *key,
                           int32_t *number, uint16_t mode) {
  return exported_call([&] { return ini::get_number_wide(file, section, key, number, mode); });
}

// ---- Update -------------------------------------------------------------------------------------

psp_status psp_iniSet(const char *file, const char *section, const char *key, const char *value) {
  return psp_iniSetEx(file, section, key, value, 0);
}

psp_status psp_iniSetEx(const char *file, const char *section, const char *key, const char *value,
                        uint16_t mode) {
  return exported_call([&] { return ini::set(file, {section, key, value}, mode); });
}

psp_status psp_iniSetW(const psp_wchar *file, const psp_wchar *section, const psp_wchar *key,
                       const psp_wchar *value) {
  return psp_iniSetExW(file, section, key, value, 0);
}

psp_status psp_iniSetExW(const psp_wchar *file, const psp_wchar *section, const psp_wchar *key,
                         const psp_wchar *value, uint16_t mode) {
  return exported_call([&] { return ini::set_wide(file, section, key, value, mode); });
}
