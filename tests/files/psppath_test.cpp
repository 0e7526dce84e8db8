// Names as text, patterns, iteration, directories, the temporary directory.
#include <gtest/gtest.h>
#include <limits.h>
#include <stdlib.h>

#include <cerrno>
#include <filesystem>
#include <fstream>
#include <set>
#include <string>

#include "files/files.h"
#include "os/os.h"
#include "psp.h"
#include "support/fixtures.h"
#include "support/pattern_model.h"

namespace {

using Paths = psp::tests::StartedInFolder;

std::string taken(char *text) {
  std::string result = text != nullptr ? text : "(null)";
  psp_freeMem(text, nullptr);
  return result;
}

TEST(Pattern, MatchesAsToldForEveryShortNameAndPattern) {
  const std::string letters = "aB*?";
  const auto words = [&](size_t most) {
    std::vector<std::string> all = {""};
    for (size_t i = 0; i < all.size(); ++i) {
      if (all[i].size() == most) continue;
      for (const char c : letters) all.push_back(all[i] + c);
    }
    return all;
  };
  for (const std::string &pattern : words(5)) {
    for (const std::string &name : words(4)) {
      ASSERT_EQ(psp::files::matches_pattern(name.c_str(), pattern.c_str()),
                psp::tests::slow_match(name.c_str(), pattern.c_str()))
          << name << " against " << pattern;
    }
  }
  const std::string long_name(20000, 'a');  // neither deep nor slow
  EXPECT_FALSE(psp::files::matches_pattern(long_name.c_str(), "*a*a*a*a*a*a*a*b"));
}

TEST_F(Paths, NamesAreTakenApartAsText) {
  const std::string here = taken(psp_currdir());
  std::string base = here + "\\";
  for (char &c : base) c = c == '/' ? '\\' : c;
  for (const char *name : {"", ".", ".\\"}) EXPECT_EQ(taken(psp_fullpath(name)), base);
  EXPECT_EQ(taken(psp_fullpath(nullptr)), base);
  EXPECT_EQ(taken(psp_fullpath("./")), base + ".\\");
  EXPECT_EQ(taken(psp_fullpath("C:/x")), "C:\\x\\");
  EXPECT_EQ(taken(psp_fullpath("C:x")), base + "C:x\\");
  EXPECT_EQ(taken(psp_fullpath("/tmp")), "\\tmp\\");
  const char *const splits[][3] = {{"C:\\dir\\f.txt", "C:\\dir\\", "f.txt"},
                                   {"C:f", "C:", "f"},
                                   {"f", "(null)", "f"},
                                   {"dir\\", "dir\\", "(null)"},
                                   {"a/b/c", "a/b/", "c"},
                                   {"a\\b/c", "a\\", "b/c"}};
  for (const auto &[name, directory, file] : splits) {
    char *directory_part, *file_part;
    psp_pathSplit(name, &directory_part, &file_part);
    EXPECT_EQ(taken(directory_part), directory);
    EXPECT_EQ(taken(file_part), file);
  }
  EXPECT_STREQ(psp_pathStripDrive("1:abc"), "abc");
  EXPECT_EQ(psp_pathIsDir("c:") + psp_pathIsDir("d\\"), 2);
  EXPECT_EQ(psp_pathIsDir("dir/"), 0);
  EXPECT_EQ(psp_pathIsDir(""), -1);
  const std::string deep = path(std::string(200, 'd')) + "/" + std::string(200, 'e');
  std::filesystem::create_directories(deep);
  std::filesystem::current_path(deep);
  EXPECT_EQ(taken(psp_currdir()), deep);
}

TEST_F(Paths, MissingArgumentsAndNamesTooLongAreRefused) {
  char *part = nullptr;
  psp_pathSplit("a\\b", nullptr, &part);
  EXPECT_EQ(taken(part), "b");
  psp_pathSplit("a\\b", &part, nullptr);
  EXPECT_EQ(taken(part), "a\\");
  psp_pathSplit(nullptr, &part, &part);
  EXPECT_EQ(part, psp_pathStripDrive(nullptr));
  EXPECT_EQ(psp_pathIsDir(nullptr) + psp_pathIsFullyQualified(nullptr), -1);
  EXPECT_EQ(psp_pathOpen(nullptr, "*"), nullptr);
  EXPECT_EQ(psp_pathOpen(folder_.c_str(), nullptr), nullptr);
  psp_pathIter *iterator = psp_pathOpen(folder_.c_str(), "*");
  EXPECT_EQ(psp_pathNext(iterator, nullptr), nullptr);
  psp_pathClose(iterator);
  EXPECT_EQ(psp_fileCreateTmpName(nullptr, nullptr, nullptr, nullptr), nullptr);
  for (const char *name : {static_cast<const char *>(nullptr), ""}) {
    EXPECT_EQ(psp_dirCreate(name), PSP_FAILED);
    EXPECT_EQ(psp_dirCreateAll(name), PSP_FAILED);
  }
  // Names that no call of the system takes, because they want a change first.
  const std::string long_name = folder_ + std::string(PATH_MAX, '/') + "\\x";
  const char *const name = long_name.c_str(), *const other = folder_.c_str();
  char text[4];
  bool same = false;
  psp::os::File file;
  psp::os::Directory directory;
  psp::os::FileStatus status;
  using namespace psp::os;
  const Error results[] = {file_rename(name, other),
                           file_rename(other, name),
                           file_replace(name, other),
                           file_replace(other, name),
                           file_remove(name),
                           file_status(name, &status),
                           link_target(name, text, 4),
                           names_lead_to_same_file(name, other, &same),
                           directory_create(name),
                           directory_remove(name),
                           directory_open(name, &directory),
                           file_create_replacement(name, other, &file),
                           file_create_replacement(other, name, &file),
                           file_replace(other, std::string(PATH_MAX + 1, '/').append("x").c_str())};
  for (const Error &result : results)
    EXPECT_EQ(result, uint32_t{ENAMETOOLONG}) << &result - results;
  EXPECT_EQ(link_target(other, text, 4), uint32_t{ERANGE});
  EXPECT_EQ(system_temporary_directory(text, 4), uint32_t{ERANGE});
}

TEST_F(Paths, LinksLeadToWhatTheyNameAndReplacementsToPlainFilesOnly) {
  using namespace psp::os;
  std::filesystem::create_symlink(".", path("link"));
  std::filesystem::create_symlink("loop", path("loop"));
  std::filesystem::create_symlink("a\\b", path("odd"));
  put("file", "");
  put("a\\b", "");
  std::filesystem::create_directory(path("taken"));
  char text[PATH_MAX];
  File file;
  bool same = true;
  const auto at = [this](const char *name) { return path(name); };
  EXPECT_EQ(link_target(at("odd").c_str(), text, sizeof text), uint32_t{EINVAL});
  EXPECT_EQ(link_target(at("loop").c_str(), text, sizeof text), uint32_t{ELOOP});
  EXPECT_EQ(link_target(at("link").c_str(), text, sizeof text), 0u);
  for (const char *nowhere : {"loop", "file/x", "none"}) {
    EXPECT_EQ(names_lead_to_same_file(at(nowhere).c_str(), at("file").c_str(), &same), 0u);
    EXPECT_FALSE(same) << nowhere;
  }
  EXPECT_EQ(file_create_replacement(at("new").c_str(), at("link").c_str(), &file),
            uint32_t{EINVAL});
  EXPECT_EQ(file_create_replacement(at("taken").c_str(), at("file").c_str(), &file),
            uint32_t{EEXIST});
  std::filesystem::current_path(folder_);
  EXPECT_EQ(file_replace("none", "file"), uint32_t{ENOENT});
  EXPECT_EQ(file_replace("file", ""), uint32_t{ENOENT});
  EXPECT_EQ(file_replace("file", "taken/"), uint32_t{ENOTDIR});
  EXPECT_EQ(file_replace("none", "/psp-none"), uint32_t{ENOENT});
  psp_pathIter *entries = psp_pathOpen(".", "*");
  std::set<std::string> directories;
  uint32_t flag = 0;
  for (const char *name; (name = psp_pathNext(entries, &flag)) != nullptr;) {
    if (flag != 0) directories.insert(name);
  }
  EXPECT_EQ(psp_pathNext(entries, &flag), nullptr) << "the end is final";
  psp_pathClose(entries);
  EXPECT_EQ(directories, (std::set<std::string>{".", "..", "link", "taken"}));
}

TEST_F(Paths, IterationMeetsEveryMatchAndTellsDirectories) {
  for (int i = 0; i < 300; ++i) std::ofstream(folder_ + "/f" + std::to_string(i) + ".dat");
  ASSERT_EQ(psp_dirCreate((folder_ + "\\sub.DAT").c_str()), PSP_OKAY);
  psp_pathIter *iterator = psp_pathOpen((folder_ + "\\").c_str(), "*.Dat");
  std::set<std::string> names;
  uint32_t flag = 9;
  while (const char *name = psp_pathNext(iterator, &flag)) {
    EXPECT_EQ(flag, std::string(name) == "sub.DAT" ? 16u : 0u);
    std::filesystem::remove(folder_ + "/" + name);  // entries go meanwhile
    names.insert(name);
  }
  psp_pathClose(iterator);
  EXPECT_EQ(names.size(), 301u);
  EXPECT_EQ(psp_pathOpen(folder_.c_str(), "*.dat"), nullptr);
  for (const char *all : {"*", "*.*"}) {
    iterator = psp_pathOpen(folder_.c_str(), all);
    for (names.clear(); const char *name = psp_pathNext(iterator, &flag);) names.insert(name);
    psp_pathClose(iterator);
    EXPECT_EQ(names, (std::set<std::string>{".", ".."}));
  }
  EXPECT_EQ(psp_pathOpen("", "*"), nullptr);
  EXPECT_EQ(psp_pathOpen((folder_ + "/none").c_str(), "*"), nullptr);
}

TEST_F(Paths, DirectoriesComeWithTheirParentsAndGo) {
  const std::string deep = folder_ + "/a/b\\c";
  EXPECT_EQ(psp_dirCreateAll(deep.c_str()), PSP_OKAY);
  EXPECT_EQ(psp_dirCreateAll(deep.c_str()), PSP_EXISTS);
  EXPECT_EQ(psp_dirCreateAll((folder_ + "\\x\\y\\").c_str()), PSP_EXISTS);
  EXPECT_TRUE(std::filesystem::is_directory(folder_ + "/x/y"));
  std::ofstream(folder_ + "/file");
  EXPECT_EQ(psp_dirCreateAll((folder_ + "/file/z").c_str()), PSP_FAILED);
  EXPECT_EQ(psp_dirRemove((folder_ + "/a").c_str()), PSP_FAILED);
  EXPECT_EQ(psp_dirRemove(deep.c_str()), PSP_OKAY);
  EXPECT_EQ(psp_dirRemove(deep.c_str()), PSP_OKAY);
  const psp_wchar invalid[] = {0xD800, 0};
  EXPECT_EQ(psp_dirCreateW(invalid), PSP_FAILED);
}

TEST_F(Paths, TemporaryDirectoryIsProbedOnceForAllThreads) {
  unsetenv("VKD_TMPDIR");
  setenv("TEMP", std::string(600, 't').c_str(), 1);
  setenv("TMP", folder_.c_str(), 1);
  const auto differs_beside_an_empty_name = [this] {
    setenv("TEMP", "", 1);
    return taken(psp_tmpdir(nullptr)) == folder_ ? 0 : 1;
  };
  EXPECT_EQ(psp::tests::status_of_child(differs_beside_an_empty_name), 0);
  std::string answers[4];
  psp::tests::in_threads(4, [&](int i) { answers[i] = taken(psp_tmpdir(nullptr)); });
  for (const std::string &answer : answers) EXPECT_EQ(answer, folder_);
  EXPECT_TRUE(std::filesystem::is_empty(folder_));
  setenv("TMP", "/", 1);
  uint32_t counter = 7;
  const std::string name = taken(psp_fileCreateTmpName(&counter, nullptr, "x", nullptr));
  EXPECT_EQ(counter, 8u);
  EXPECT_EQ(name.rfind(folder_ + "\\temp_", 0), 0u);
  char tail[40];
  psp_snprintf(tail, sizeof tail, "_%010u_007.x", psp_get_pid());
  EXPECT_NE(name.find(tail), std::string::npos) << name;
  setenv("VKD_TMPDIR", "not there", 1);
  EXPECT_EQ(taken(psp_tmpdir(nullptr)), "not there");
}

TEST(NoDisk, HasNoDirectories) {
  psp_nodisk();
  ASSERT_EQ(psp_init(), PSP_OKAY);
  EXPECT_EQ(taken(psp_fullpath("a")), "\\a\\");
  EXPECT_EQ(psp_pathOpen("/", "*"), nullptr);
  EXPECT_EQ(psp_dirCreateAll("/tmp/x"), PSP_FAILED);
  EXPECT_EQ(psp_dirRemove("/nowhere"), PSP_FAILED);
  psp_term();
}

}  // namespace
