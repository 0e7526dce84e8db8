// INI files: the reader against a list of lines, updates against their examples, and files that
// are never lost.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <filesystem>
#include <fstream>
#include <random>
#include <string>
#include <thread>

#include "psp.h"
#include "support/fixtures.h"

namespace {

using std::string;

class Ini : public psp::tests::StartedInFolder {
 protected:
  Ini() : StartedInFolder(true) {}
  void put(const string &text) const { psp::tests::put_file(path, text); }
  string content() const { return psp::tests::get_file(path); }
  // The value, or the names with "|" between them, or "#" and the status.
  string get(const char *section, const char *key) const {
    char buffer[2000];
    const psp_status status = psp_iniGet(path.c_str(), section, key, buffer, sizeof buffer);
    if (status != PSP_OKAY) return "#" + std::to_string(status);
    for (char *end = buffer; *(end += strlen(end)) == '\0' && end[1] != '\0';) *end = '|';
    return buffer;
  }
  psp_status set(const char *section, const char *key, const char *value) const {
    return psp_iniSet(path.c_str(), section, key, value);
  }
  // The file after an update, with the line ends of a text in memory.
  string updated(const string &text, const char *section, const char *key, const char *value) {
    put(text);
    EXPECT_EQ(set(section, key, value), PSP_OKAY);
    EXPECT_FALSE(std::filesystem::exists(Folder::path("_temp_.ini")));
    string result = content();
    for (size_t at = 0; (at = result.find("\r\n", at)) != string::npos; ++at) result.erase(at, 1);
    return result;
  }
  string path = Folder::path("a.ini");
};

TEST_F(Ini, ReadsLinesByteForByte) {
  const string name(130, 'n'), value(1900, 'v');
  const std::array<string, 4> rows[] = {
      // lines of a section, its keys, a key, its value
      {"x = 1 ; note\r\ny=2;3\n  z=5", "x|y|  z", "X", "1"},
      {"k=\n=v\n   =v\nnovalue\n;=c", "k", "k", ""},
      {"k\t=\tv \t\v\n#a==b= c", "k\t|#a", "k\t", "\tv"},
      {string("a=1\rb=2\nb=1\0b=2\nc=3", 20), "a|b|c", "b", "1"},
      {"a=\xFFx\n\xFF=2\nc=3\xFF", "a|\xFF|c", "c", "3\xFF"},
      {"a=1\nA=2\n[S]\na=3", "a|A", "a", "1"},
      {"cbph=1\neimf=2", "cbph|eimf", "eimf", "2"},  // two of one hash
      {"abcd=1\nabxd=2\naxcd=3", "abcd|abxd|axcd", "axcd", "3"},
      {name + "=1\nv=" + value.substr(0, 128), name.substr(0, 127) + "|v", name, "#2"},
      {"v=" + value.substr(0, 128), "v", "v", value.substr(0, 128)},
      {"v=" + value, "v", "v", value},
  };
  for (const auto &[lines, keys, key, found] : rows) {
    put("before=1\n[s] trailing\n" + lines);
    psp_readIniFile(path.c_str());
    EXPECT_EQ(get("s", nullptr), keys) << lines;
    EXPECT_EQ(get("s", key.c_str()), found) << lines;
  }
  put("[u\n[ t ]\n[a]\n[b]\n[A]\nk=1\n");
  psp_readIniFile(path.c_str());
  EXPECT_EQ(get(nullptr, nullptr), "u| t |a|b|A");
  EXPECT_EQ(get("a", "k"), "#2");
}

TEST_F(Ini, NumbersAndWideFormsAndFailures) {
  put("[s]\na=  \t -17abc\nb=abc\nc=+9999999999\nd=-99999999999999999\ne=12345678901234567\n"
      "f=123456789012345678\nw=\xE2\x82\xAC\nx=\xFE\n");
  constexpr int32_t kFull = PSP_ERR_BUFFERFULL;
  const int32_t expected[] = {-17, 0, INT32_MAX, kFull, INT32_MAX, kFull, PSP_FAILED};
  for (int index = 0; index < 7; ++index) {
    const char key[] = {"abcdefg"[index], 0};
    int32_t number = 4711;
    const psp_status status = psp_iniInt32(path.c_str(), "s", key, &number);
    EXPECT_EQ(status == PSP_OKAY ? number : status, expected[index]) << index;
    EXPECT_TRUE(status == PSP_OKAY || number == 4711);
    EXPECT_EQ(psp_iniInt32(path.c_str(), "gone", key, &number), PSP_FAILED);
  }
  const std::u16string wide(path.begin(), path.end());
  psp_wchar buffer[4] = {7, 7, 7, 7};
  EXPECT_EQ(psp_iniGetW(wide.c_str(), u"s", u"x", buffer, 4), PSP_ERR_NOMEMORY);
  EXPECT_EQ(psp_iniGetW(wide.c_str(), u"s", u"gone", buffer, 4), PSP_FAILED);
  EXPECT_EQ(psp_iniGetW(wide.c_str(), u"s", u"\xD800", buffer, 1), PSP_ERR_INVARG);
  EXPECT_EQ(buffer[0], 7);
  EXPECT_EQ(psp_iniGetW(wide.c_str(), u"s", u"w", buffer, 2), PSP_OKAY);
  EXPECT_EQ(std::u16string(buffer), u"\u20AC");
  EXPECT_EQ(psp_iniSetW(wide.c_str(), u"s", u"w", u"\u00E9"), PSP_OKAY);
  EXPECT_EQ(get("s", "w"), "\xC3\xA9");

  std::filesystem::remove(path);
  EXPECT_EQ(psp_readIniFileW(wide.c_str()), PSP_OKAY);
  EXPECT_EQ(get("s", "b"), "abc");
  psp_readIniFile(path.c_str());
  EXPECT_EQ(get("s", "b"), "#-905");
  EXPECT_EQ(set("s", "b", "c"), PSP_ERR_NOFILE);
  EXPECT_TRUE(std::filesystem::is_empty(folder_));
  path = Folder::path("_temp_.ini");  // which its own update would empty
  put("[s]\na=1\n");
  EXPECT_EQ(set("s", "a", "2"), PSP_ERR_NOFILE);
  EXPECT_EQ(content(), "[s]\na=1\n");
}

TEST_F(Ini, WrongArgumentsAreToldAndDoNothing) {
  put("[s]\nk=1\n");
  const char *const file = path.c_str();
  const std::u16string wide_path(path.begin(), path.end());
  const psp_wchar *const wide = wide_path.c_str();
  char text[2];
  psp_wchar units[2];
  int32_t number = 0;
  const psp_status statuses[] = {
      psp_iniGet(nullptr, "s", "k", text, 2),      psp_iniGet(file, "s", "k", nullptr, 2),
      psp_iniGet(file, "s", "k", text, 1),         psp_iniInt32(nullptr, "s", "k", &number),
      psp_iniInt32(file, nullptr, "k", &number),   psp_iniInt32(file, "s", nullptr, &number),
      psp_iniInt32(file, "s", "k", nullptr),       psp_iniSet(nullptr, "s", "k", "2"),
      psp_iniSet(file, nullptr, "k", "2"),         psp_iniGetW(wide, nullptr, u"k", units, 2),
      psp_iniInt32W(wide, nullptr, u"k", &number), psp_iniInt32W(wide, u"s", u"k", nullptr),
      psp_iniSetW(wide, u"s", u"k", nullptr),      psp_readIniFileW(nullptr)};
  for (const psp_status status : statuses) EXPECT_EQ(status, PSP_ERR_INVARG);
  EXPECT_EQ(psp_iniGetW(wide, u"s", u"k", units, 1u << 30), PSP_ERR_NOMEMORY);
  EXPECT_EQ(psp_readIniFile(nullptr), PSP_OKAY);
  EXPECT_EQ(psp_iniInit(), PSP_OKAY);  // a second time
  EXPECT_EQ(number, 0);
  EXPECT_EQ(content(), "[s]\nk=1\n");
}

TEST_F(Ini, UpdateChangesOneLineAndKeepsTheOthers) {
  const string text = "[db]\npath=x\n\n[log]\nlevel=3\n";
  EXPECT_EQ(updated(text, "DB", "size", "10"), "[db]\npath=x\nsize=10\n\n[log]\nlevel=3\n");
  EXPECT_EQ(content().substr(0, 6), "[db]\r\n");
  EXPECT_EQ(updated(text, "log", "LEVEL", "4"), "[db]\npath=x\n\n[log]\nLEVEL=4\n");
  EXPECT_EQ(updated(text, "net", "path", "y"), text + "\n[net]\npath=y\n");
  EXPECT_EQ(updated(text, "db", nullptr, "y"), "[log]\nlevel=3\n");
  EXPECT_EQ(updated(text, "db", "path", nullptr), "[db]\n[log]\nlevel=3\n");
  EXPECT_EQ(updated("[log]\nlevel = 3", "log", "level", "4"), "[log]\nlevel = 3\nlevel=4\n");
  EXPECT_EQ(get("log", "level"), "3");
  EXPECT_EQ(updated("[a]\nk=1\n\n \t\nj\nK\nk=2\n\n", "a", "k", nullptr), "[a]\nj\n");
  EXPECT_EQ(updated("[a]\n\n  in=1\n\nj\nK\n", "a", "k", "v"), "[a]\n\n  in=1\n\nj\nk=v\n");
  EXPECT_EQ(updated("[a]\n  in=1\n\nk=1\n", "a", "k", nullptr), "[a]\n  in=1\n");
  EXPECT_EQ(updated("[a]\nk=1\n\n", "a", "j", "2"), "[a]\nk=1\nj=2\n");
  EXPECT_EQ(updated("k", "a", "j", "2"), "k\n\n[a]\nj=2\n");
  EXPECT_EQ(updated("[a]", "a", "j", "2"), "[a]\nj=2\n");
  // What no text should hold survives an update of another line.
  const string odd("[o]\nz=\0\xFF\n\xFF\n\r=x", 14);
  EXPECT_EQ(updated("[a]\nj=1\n" + odd, "a", "j", "2"), "[a]\nj=2\n" + odd);
  EXPECT_EQ(updated(odd, "p", nullptr, nullptr), odd);
  const string blank("[a]\nj=1\n \0x", 11);
  EXPECT_EQ(updated(blank, "a", "k", "2"), blank + "\nk=2\n");
}

TEST_F(Ini, UpdateFollowsLinksAndKeepsPermissions) {
  namespace fs = std::filesystem;
  const string file = path, temporary = Folder::path("_temp_.ini");
  put("[s]\na=1\n");
  fs::permissions(file, fs::perms{0464});
  fs::create_symlink(file, path = Folder::path("link"));
  std::ofstream(temporary) << "left by a killed process";
  EXPECT_EQ(set("s", "a", "2"), PSP_OKAY);
  EXPECT_TRUE(fs::is_symlink(path) && !fs::exists(temporary));
  EXPECT_EQ(fs::status(file).permissions(), fs::perms{0464});
  fs::create_symlink(file, temporary);
  EXPECT_EQ(set("s", "a", "3"), PSP_ERR_NOFILE);
  EXPECT_EQ(content(), "[s]\r\na=2\r\n");
  psp_readIniFile(file.c_str());
  path = Folder::path("A.INI");  // another name on the disk, and so in the store
  EXPECT_EQ(get("s", "a"), "#-905");
  string many;
  for (int section = 0; section < 70'000; ++section) many += "[s]\n";
  put(many + "[t]\na=5\n");
  EXPECT_EQ(get("t", "a"), "5");
}

// Every state of the file is "[s]", the number and as many fillers as make a few blocks.
string numbered(int number) {
  return "[s]\r\nn=" + std::to_string(number) + "\r\n" + string(5000, 'f') + "\r\n";
}

TEST_F(Ini, FullDiskLeavesOldFile) {
  signal(SIGXFSZ, SIG_IGN);
  put(numbered(0));
  for (const rlim_t limit_bytes : {0, 1000, 1024, 4999, 5000}) {
    for (const rlim_t limit : {limit_bytes, RLIM_INFINITY}) {
      const rlimit limits = {limit, RLIM_INFINITY};
      setrlimit(RLIMIT_FSIZE, &limits);
      if (limit == limit_bytes) {
        const string value(limit == 1000 ? 6000 : 1, '1');
        EXPECT_EQ(set("s", "n", value.c_str()), PSP_ERR_REPLACEFILE);
      }
    }
    EXPECT_EQ(content(), numbered(0));
    EXPECT_FALSE(std::filesystem::exists(Folder::path("_temp_.ini")));
  }
}

// Each process counts a key of its own up in two files; none may lose or spoil what others wrote.
TEST_F(Ini, ProcessesLoseNoUpdateOfOneDirectory) {
  const string files[] = {path, Folder::path("b.ini")};
  for (const string &file : files)
    std::ofstream(file) << file << "\r\n[s]\r\nk0=0\r\nk1=0\r\nk2=0\r\n";
  pid_t children[3];
  for (int child = 0; child < 3; ++child) {
    if ((children[child] = fork()) != 0) continue;
    const string key = "k" + std::to_string(child);
    for (int number = 0; number < 300; ++number) {
      path = files[number % 2];
      psp_readIniFile(path.c_str());
      if (get("s", key.c_str()) != std::to_string(number / 2)) _exit(1);
      const string next = std::to_string(number / 2 + 1);
      psp_status status = PSP_ERR_NOFILE;  // the others had the directory for too long
      while (status == PSP_ERR_NOFILE) status = set("s", key.c_str(), next.c_str());
      if (status != PSP_OKAY) _exit(2);
    }
    _exit(0);
  }
  for (const pid_t child : children) {
    int status = -1;
    EXPECT_EQ(waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0);
  }
  for (const string &file : files) {
    path = file;
    EXPECT_EQ(content(), file + "\r\n[s]\r\nk0=150\r\nk1=150\r\nk2=150\r\n");
  }
}

TEST_F(Ini, UpdatesAndLookupsOfTwoThreadsAreWhole) {
  put(numbered(1000));
  std::thread writer([this] {
    for (int number = 1000; number < 1100; ++number) {
      EXPECT_EQ(set("s", "n", std::to_string(number).c_str()), PSP_OKAY);
    }
  });
  for (int32_t number = 1000, last = 1000; last != 1099; last = number) {
    ASSERT_EQ(psp_iniInt32(path.c_str(), "s", "n", &number), PSP_OKAY);
    ASSERT_GE(number, last);
  }
  writer.join();
}

}  // namespace
