// Faults of the C library under calls of the platform layer: moves to another file system,
// replacements over what a killed process left, names, directories, threads, counters, commands.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <filesystem>

#include "support/faults.h"

#define os real_os  // the places are those of the platform layer below the faults
#include "os/posix/service_places.h"
#undef os

namespace {

using namespace psp::faults;
namespace fs = std::filesystem;
namespace os = psp::os;

const std::string content(10'000, 'c');
constexpr os::OpenOptions kAlone = {.read = true,
                                    .write = true,
                                    .create = true,
                                    .truncate = true,
                                    .deny_read = true,
                                    .deny_write = true};

std::string elsewhere;  // on another file system than the scratch folder, if there are two
os::File file;
uint32_t count;
char text[PATH_MAX];
std::atomic<bool> has_run;

const char *at(const char *name) { return scratch_path(name); }
[[maybe_unused]] void run(void *) {
  has_run = true;
  has_run.notify_all();
}
bool close_opened(os::Error error) { return error == 0 && os::file_close(&file) == 0; }

// Without an input, whose descriptor must stay free, or with a file as input.
bool with_input(bool (*work)(), const char *name) {
  const int input = dup(0);
  close(0);
  EXPECT_EQ(name != nullptr ? open(name, O_RDONLY) : 0, 0);
  const bool worked = work();
  EXPECT_EQ(fcntl(0, F_GETFD) != -1, name != nullptr);
  const os::LastErrorKeeper keeper;
  dup2(input, 0);
  close(input);
  return worked;
}

struct Row {
  const char *what;
  bool (*works)();
  bool (*holds)(bool worked, bool once) = [](bool, bool) { return true; };
  bool needs_two_file_systems = false;
};

bool iterate() {
  os::Directory directory;
  os::DirectoryEntry entry;
  if (os::directory_open(at("d"), &directory) != 0) return false;
  int entries = errno = 0, directories = 0;
  for (; os::directory_next(&directory, &entry); ++entries) directories += entry.is_directory;
  os::directory_close(&directory);
  return entries == 4 && errno == 0 && directories >= 2;
}

bool use_input() {
  int64_t size = 0;
  return os::file_standard(os::StandardChannel::kInput, &file) == 0 &&
         os::file_seek(&file, 0, os::Origin::kEnd) == 0 && os::file_size(file, &size) == 0;
}

const Row kRows[] = {
    {"move", [] { return os::file_rename(elsewhere.c_str(), at("d/moved")) == 0; },
     [](bool worked, bool once) {
       // What undoes a failure may fail as well.
       const bool alone = fs::exists(at("d/moved")) == worked && fs::exists(elsewhere) != worked;
       return get_file(worked ? at("d/moved") : elsewhere) == content && (alone || !once);
     },
     true},
    {"rename", [] { return os::file_rename(at("f"), at("d/moved")) == 0; },
     [](bool worked, bool) { return get_file(worked ? at("d/moved") : at("f")) == content; }},
    {"replace", [] { return os::file_replace(at("left"), at("f")) == 0; },
     [](bool worked, bool) { return get_file(at("f")) == (worked ? "left" : content); }},
    {"create a replacement",
     [] { return close_opened(os::file_create_replacement(at("left"), at("f"), &file)); },
     [](bool worked, bool) {
       return get_file(at("f")) == content && (!worked || get_file(at("left")).empty());
     }},
    {"open", [] { return close_opened(os::file_open(at("left"), kAlone, &file)); }},
    {"input", use_input},
    {"link", [] { return os::link_target(at("d/link"), text, sizeof text) == 0; }},
    {"same",
     [] {
       bool same = false;
       return os::names_lead_to_same_file(at("f"), at("d/../f"), &same) == 0 && same;
     }},
    {"directory", iterate},
    {"pages",
     [] {
       void *pages = os::reserve_pages(65536);
       if (pages != nullptr) os::release_pages(pages, 65536);
       return pages != nullptr;
     }},
    {"wait", [] { return os::wait_on_address({1}, 2, 0) == os::WaitResult::kWoken; }},
#if !defined(__SANITIZE_THREAD__)  // which keeps the calls that make threads for itself
    {"exit hook",
     [] {
       if (os::install_thread_exit_hook([] {}) != 0) return false;
       os::remove_thread_exit_hook();
       return true;
     }},
    {"thread",
     [] {
       uintptr_t thread = has_run = false;
       if (os::thread_start(run, nullptr, 1, &thread) != 0) return false;
       has_run.wait(false);
       return true;
     }},
    {"unwatched thread",
     [] {
       has_run = false;
       if (os::thread_start(run, nullptr, 0, nullptr) != 0) return false;
       has_run.wait(false);
       return true;
     }},
    {"awaited thread",
     [] {
       uintptr_t thread = 0;
       if (os::thread_start_awaited(run, nullptr, &thread) != 0) return false;
       os::thread_wait_end(thread);
       return true;
     }},
    {"interrupts",
     [] {
       const bool worked = os::install_interrupt_handler([] {}) == 0;
       os::remove_interrupt_handler();
       return worked;
     }},
#endif
    {"priority",
     [] { return os::thread_set_priority(os::thread_id(), os::ThreadPriority::kNormal) == 0; }},
    {"counter",
     [] {
       return os::service_counter_add("s", 1) == 0 && os::service_counter_read("s", &count) == 0;
     },
     [](bool worked, bool) {
       const std::string counted = get_file(at("counters/s"));  // unreadable, it counts as 0
       return counted == "8\n" || counted == "1\n" || (counted == "7\n" && !worked);
     }},
    {"command",
     [] {
       // Copies of this process make some of the calls, and as many follow here, which counts.
       bool worked = os::service_manager_open() == 0 && os::service_start("s") == 0;
       for (int calls = 0; calls < 12; ++calls) worked &= os::service_find("s") == 0;
       return worked;
     }},
};

FAULT_TEST(PlatformFaults, FailedCallIsToldAndLosesNothing) {
  const psp::tests::Folder folder_elsewhere;
  elsewhere = folder_elsewhere.path("file");
  static const char *const script = at("start"), *const counters = at("counters"),
                           *const units = at("");
  put_file(script, "#!/bin/sh\n");
  chmod(script, 0755);
  psp::real_os::service_places = {counters, units, units, script};
  put_file(at("s.service"), "");
  put_file(elsewhere, "");
  struct stat here = {}, there = {};
  ASSERT_EQ(stat(elsewhere.c_str(), &there) + stat(script, &here), 0);
  for (const Row &row : kRows) {
    if (row.needs_two_file_systems && here.st_dev == there.st_dev) continue;
    SCOPED_TRACE(row.what);
    Scenario scenario{.sweeps = kSystem, .started = false};
    scenario.system_codes = {EINTR,  EIO,    EACCES,     EINVAL, ENOENT,
                             EEXIST, ENOSYS, EOPNOTSUPP, EAGAIN, ENOLCK};
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    scenario.system_codes = {EINTR, EIO, EACCES, EINVAL};  // an open is dear there
#endif
    scenario.prepare = scenario.clean = [] {
      for (const char *folder : {"d", "counters"}) {
        fs::remove_all(at(folder));
        fs::create_directory(at(folder));
      }
      fs::create_symlink("..", at("d/link"));
      put_file(at("d/x"), "");
      put_file(at("counters/s"), "7\n");
      put_file(at("left"), "left");
      put_file(at("f"), content);
      put_file(elsewhere, content);
      chmod(elsewhere.c_str(), 06755);
    };
    scenario.act = [&row] {
      return with_input(row.works, row.works == use_input ? at("f") : nullptr);
    };
    scenario.judge = [&row](const Run &run) {
      EXPECT_TRUE(row.holds(run.worked, run.fault.times == 1));
      EXPECT_TRUE(run.worked || run.error != 0);
    };
    sweep(scenario);
    if (testing::Test::HasFailure()) return;
  }
}

}  // namespace
