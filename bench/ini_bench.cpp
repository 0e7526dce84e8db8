// INI files against GLib's key files and inih: loading a file of kLoadedKeys keys in kSections
// sections, and lookups of texts and numbers in small and large files.
//
// A load ends with a store that answers lookups; inih's own C++ reader keeps one, its C parser only
// calls back.
// A text is taken into a caller's buffer by psp and as a new string by GLib, as their users do.
#include <INIReader.h>
#include <glib.h>
#include <ini.h>

#include <filesystem>
#include <fstream>
#include <random>
#include <string>
#include <vector>

#include "bench.h"
#include "psp.h"

namespace psp_bench {
namespace {

using benchmark::State;

constexpr int kSections = 50;
constexpr int kLoadedKeys = 1000;
constexpr int kPrimeStride = 7919;  // visits every key in an order without pattern
constexpr uint32_t kSeed = 20240611;

std::string section_name(int number) { return "section." + std::to_string(number % kSections); }
std::string key_name(int number) { return "parameter_" + std::to_string(number); }

// A file of keys whose values are paths and numbers in turn.
class IniFile {
 public:
  explicit IniFile(int keys) : keys_(keys) {
    const std::filesystem::path memory = "/dev/shm";
    path_ = (exists(memory) ? memory : std::filesystem::temp_directory_path()) /
            ("psp_bench_" + std::to_string(getpid()) + "_" + std::to_string(keys) + ".ini");
    std::mt19937 random(kSeed);
    std::ofstream file(path_);
    for (int section = 0; section < kSections; ++section) {
      file << "[" << section_name(section) << "]\n";
      for (int key = section; key < keys; key += kSections) {
        file << key_name(key) << "=" << (key % 2 != 0 ? "/srv/data/volume-" : "")
             << random() % 1000000 << "\n";
      }
    }
    file.close();
    for (int at = 0, key = 0; at < keys; ++at, key = (key + kPrimeStride) % keys) {
      (key % 2 != 0 ? texts_ : numbers_).push_back({section_name(key), key_name(key)});
    }
    g_key_file_load_from_file(glib_, path(), G_KEY_FILE_NONE, nullptr);
  }
  ~IniFile() {
    g_key_file_free(glib_);
    std::filesystem::remove(path_);
  }
  const char *path() const { return path_.c_str(); }
  int keys() const { return keys_; }
  GKeyFile *glib() const { return glib_; }
  struct Probe {
    std::string section, key;
  };
  const std::vector<Probe> &probes(bool of_texts) const { return of_texts ? texts_ : numbers_; }

 private:
  int keys_;
  std::filesystem::path path_;
  std::vector<Probe> texts_, numbers_;
  GKeyFile *glib_ = g_key_file_new();
};

const IniFile &file_of(int keys) {
  static const IniFile small(100), middle(kLoadedKeys), large(10000);
  return keys == 100 ? small : keys == kLoadedKeys ? middle : large;
}

uint64_t digest_of(const std::string &text) { return digest(text.data(), text.size()); }

// ---- Loads: one operation is a whole file -------------------------------------------------------

const char *last_section() {
  static const std::string name = section_name(kLoadedKeys - 1);
  return name.c_str();
}
const char *last_key() {
  static const std::string name = key_name(kLoadedKeys - 1);
  return name.c_str();
}

uint64_t load_ours(State &state) {
  const char *path = file_of(kLoadedKeys).path();
  for (auto _ : state) psp_readIniFile(path);
  char value[100] = "";
  if (psp_iniGet(path, last_section(), last_key(), value, sizeof value) != PSP_OKAY) {
    state.SkipWithError("failed");
  }
  return digest_of(value);
}

uint64_t load_glib(State &state) {
  std::string value;
  for (auto _ : state) {
    GKeyFile *file = g_key_file_new();
    g_key_file_load_from_file(file, file_of(kLoadedKeys).path(), G_KEY_FILE_NONE, nullptr);
    state.PauseTiming();
    char *text = g_key_file_get_string(file, last_section(), last_key(), nullptr);
    value = text != nullptr ? text : "";
    g_free(text);
    state.ResumeTiming();
    g_key_file_free(file);
  }
  return digest_of(value);
}

uint64_t load_reader(State &state) {
  std::string value;
  for (auto _ : state) {
    const INIReader reader(file_of(kLoadedKeys).path());
    value = reader.GetString(last_section(), last_key(), "");
  }
  return digest_of(value);
}

uint64_t load_parser(State &state) {
  std::string value;
  for (auto _ : state) {
    const auto handler = [](void *user, const char *, const char *name, const char *text) {
      if (strcmp(name, last_key()) == 0) *static_cast<std::string *>(user) = text;
      return 1;
    };
    ini_parse(file_of(kLoadedKeys).path(), handler, &value);
  }
  return digest_of(value);
}

// ---- Lookups: one operation is one value --------------------------------------------------------

template <class Lookup>
uint64_t look_up(State &state, int keys, bool of_texts, Lookup lookup) {
  const IniFile &file = file_of(keys);
  const std::vector<IniFile::Probe> &probes = file.probes(of_texts);
  psp_readIniFile(file.path());
  size_t at = 0;
  for (auto _ : state) {
    benchmark::DoNotOptimize(lookup(file, probes[at]));
    at = at + 1 == probes.size() ? 0 : at + 1;
  }
  uint64_t sum = 0;
  for (const IniFile::Probe &probe : probes) sum = sum * 31 + lookup(file, probe);
  return sum;
}

uint64_t text_of_ours(const IniFile &file, const IniFile::Probe &probe) {
  char value[100];
  psp_iniGet(file.path(), probe.section.c_str(), probe.key.c_str(), value, sizeof value);
  return static_cast<unsigned char>(value[2]);
}

uint64_t text_of_glib(const IniFile &file, const IniFile::Probe &probe) {
  char *value =
      g_key_file_get_string(file.glib(), probe.section.c_str(), probe.key.c_str(), nullptr);
  const auto result = static_cast<unsigned char>(value[2]);
  g_free(value);
  return result;
}

uint64_t number_of_ours(const IniFile &file, const IniFile::Probe &probe) {
  int32_t number = 0;
  psp_iniInt32(file.path(), probe.section.c_str(), probe.key.c_str(), &number);
  return number != 0;
}

uint64_t number_of_glib(const IniFile &file, const IniFile::Probe &probe) {
  const char *key = probe.key.c_str();
  GError *error = nullptr;
  const int number = g_key_file_get_integer(file.glib(), probe.section.c_str(), key, &error);
  g_clear_error(&error);
  return number != 0;
}

void add_ini_cases() {
  add_case("ini/load 1,000 keys in 50 sections", {{"psp", load_ours},
                                                  {"GKeyFile", load_glib, 1.0},
                                                  {"INIReader", load_reader, 0.7},
                                                  {"inih", load_parser, 0.7}});
  for (const int keys : {100, 10000}) {
    const auto with = [keys](bool of_texts, auto lookup) {
      return [=](State &state) { return look_up(state, keys, of_texts, lookup); };
    };
    const std::string size = " of " + std::to_string(keys) + " keys";
    add_case("ini/look a text up" + size,
             {{"psp", with(true, text_of_ours)}, {"GKeyFile", with(true, text_of_glib), 0.8}});
    add_case("ini/look a number up" + size, {{"psp", with(false, number_of_ours)},
                                             {"GKeyFile", with(false, number_of_glib), 0.8}});
  }
}

const Registration registration(add_ini_cases);

}  // namespace
}  // namespace psp_bench
