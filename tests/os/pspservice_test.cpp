// Services, with a stand-in for the manager: a datagram socket, a private folder, and a script that
// writes down what the manager's command is asked.
#include <gtest/gtest.h>
#include <pthread.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>

#include "os/os.h"
#include "os/posix/service_places.h"
#include "psp.h"
#include "support/fixtures.h"

namespace {

namespace fs = std::filesystem;
namespace os = psp::os;
using psp::tests::status_of_child;

// Answers "cat" by the units that there are and fails for the verb in the file "failing". Tells of
// a descriptor of the test's that the command's parent has.
constexpr char kScript[] =
    "#!/bin/sh\n"
    "cd \"${0%/*}\"\n"
    "echo \"$@\" | sed 's/--no-ask-password --quiet //' >>commands\n"
    "test ! -e /proc/$PPID/fd/77 || echo 77 >>commands\n"
    "case \"$*\" in *\" $(cat failing)\"*) kill $$;; esac\n"
    "case \"$3\" in cat) test -e \"units/$5\";; esac\n";

class Service : public testing::Test, protected psp::tests::Folder {
 protected:
  Service() {
    umask(077);  // what others must read does not depend on it
    chmod(folder.c_str(), 0755);
    fs::create_directory(units);
    chmod(units.c_str(), 0755);
    std::ofstream(script) << kScript;
    chmod(script.c_str(), 0755);
    fail_verb("nothing");
    os::service_places = {counters.c_str(), units.c_str(), folder.c_str(), script.c_str()};
    dup2(STDOUT_FILENO, 77);
    unsetenv("NOTIFY_SOCKET");
    unsetenv("SYSTEMD_EXEC_PID");
    EXPECT_EQ(psp_init(), PSP_OKAY);
  }
  ~Service() override { psp_term(); }

  void fail_verb(const char *verb) { std::ofstream(folder / "failing") << verb; }
  std::string commands() {
    const std::string all = psp::tests::get_file(folder / "commands");
    fs::remove(folder / "commands");
    return all;
  }
  size_t unit_count() {
    return static_cast<size_t>(std::distance(fs::directory_iterator(units), {}));
  }

  const fs::path folder = folder_;
  const fs::path units = folder / "units", counters = folder / "var/11.0/services",
                 script = folder / "manager";
};

// ---- Running ------------------------------------------------------------------------------------

uint16_t stop_flag;
std::atomic<int> hang_ups, own_signals;
int manager_socket;

std::string next_report() {
  char text[300] = {};
  return recv(manager_socket, text, sizeof text - 1, 0) > 0 ? text : "nothing";
}

// To the process, as the manager does. The thread sanitizer would keep such a signal back while its
// receiver sleeps on a word.
void send(int signal) {
#if defined(__SANITIZE_THREAD__)
  raise(signal);
#else
  kill(getpid(), signal);
#endif
}

int32_t run_as_service(psp_word first, psp_word second) {
  psp_handleInterrupt([] { ++hang_ups; });
  EXPECT_EQ(next_report(),
            "STATUS=Start pending, check point 1\nEXTEND_TIMEOUT_USEC=31536000000000");
  EXPECT_EQ(std::getenv("NOTIFY_SOCKET"), nullptr) << "programs started here inherit it";
  EXPECT_EQ(psp_serviceStart("s", nullptr, first, second, run_as_service), 0);  // not a second one
  for (const char *check_point : {"2", "3", "4"}) {
    if (*check_point == '3') {  // after the first stop
      psp_serviceStarted();
      EXPECT_EQ(next_report(), "READY=1\nSTATUS=Running");
    }
    __atomic_store_n(&stop_flag, 0, __ATOMIC_SEQ_CST);
    send(SIGTERM);
    EXPECT_EQ(next_report(), std::string("STOPPING=1\nSTATUS=Stop pending, check point ") +
                                 check_point + "\nEXTEND_TIMEOUT_USEC=5000000");
    EXPECT_EQ(__atomic_load_n(&stop_flag, __ATOMIC_SEQ_CST), first == 0) << "one may go without";
  }
  EXPECT_EQ(psp_log("a service has no console"), 0);
  EXPECT_EQ(hang_ups, 0);
  send(SIGHUP);
  while (hang_ups == 0) psp_sleep(1);
  const int status = status_of_child([] {
    psp_handleInterrupt(nullptr);
    return psp_handleInterrupt([] {}) != PSP_OKAY || psp_handleInterrupt(nullptr) != PSP_OKAY;
  });
  EXPECT_EQ(status, 0) << "a forked child is no service and has its own interrupts";
  std::ofstream(os::service_places.units + std::string("/own.service")) << "[Unit]";
  EXPECT_EQ(psp_serviceUninstall("own", "own"), PSP_OKAY);
  if (first == 0) psp_handleInterrupt(nullptr);
  psp_serviceDone();
  if (second != 0) psp_threadEnd();
  return 5;
}

int32_t subtract(psp_word first, psp_word second) {
  psp_serviceStarted();
  psp_serviceDone();
  return static_cast<int32_t>(first - second);
}

TEST_F(Service, NotInstalledOrFromAConsoleRunsDirectly) {
  EXPECT_EQ(psp_serviceStart("s", &stop_flag, 7, 4, subtract), 3);
  EXPECT_EQ(psp_serviceStart("\xFF", nullptr, 4, 7, subtract), -3);
  EXPECT_EQ(psp_serviceStart("s", nullptr, 4, 7, nullptr), PSP_FAILED);
  ASSERT_EQ(os::service_counter_add("s", 1), 0u);
  EXPECT_EQ(psp_serviceStart("s", nullptr, 7, 4, subtract), 3);
  const std::string longest = '/' + std::string(sizeof sockaddr_un::sun_path, 'n');
  for (const char *socket_name : {"", "/", "vsock:2:1", longest.c_str()}) {
    setenv("NOTIFY_SOCKET", socket_name, 1);
    EXPECT_EQ(psp_serviceStart("s", nullptr, 7, 4, subtract), 3) << socket_name;
  }
  setenv("NOTIFY_SOCKET", "/nowhere", 1);
  // The manager started a parent of this process.
  for (const std::string &process :
       {std::string("1"), std::string("x"), std::to_string(getpid()) + "x"}) {
    setenv("SYSTEMD_EXEC_PID", process.c_str(), 1);
    EXPECT_EQ(psp_serviceStart("s", nullptr, 7, 4, subtract), 3);
  }
  ASSERT_EQ(os::service_counter_add("s", -2), 0u);
  EXPECT_EQ(psp_serviceStart("s", nullptr, 7, 4, subtract), 3);
}

TEST_F(Service, StatesAndStopsFollowTheProtocolAndSignalsGoBack) {
  ASSERT_EQ(os::service_counter_add("s", 1), 0u);
  signal(SIGTERM, [](int) { ++own_signals; });
  const std::string path = folder / "notify", abstract = '@' + path;
  for (const std::string &name : {path, abstract}) {
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    name.copy(address.sun_path, sizeof address.sun_path - 1);
    if (name[0] == '@') address.sun_path[0] = '\0';
    manager_socket = socket(AF_UNIX, SOCK_DGRAM, 0);
    const timeval patience = {30, 0};
    setsockopt(manager_socket, SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);
    const auto bytes = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + name.size());
    ASSERT_EQ(bind(manager_socket, reinterpret_cast<sockaddr *>(&address), bytes), 0);
    setenv("NOTIFY_SOCKET", name.c_str(), 1);
    commands();
    // In a process of its own: check points never begin again.
    const int status = status_of_child([&] {
      setenv("SYSTEMD_EXEC_PID", std::to_string(getpid()).c_str(), 1);
      const bool is_abstract = name == abstract;  // the second time with the other ways to end
      EXPECT_EQ(psp_serviceStart("s", is_abstract ? nullptr : &stop_flag, is_abstract, is_abstract,
                                 run_as_service),
                0);
      EXPECT_EQ(next_report(), "STOPPING=1\nSTATUS=Stopped");
      psp_handleInterrupt(nullptr);
      raise(SIGTERM);
      EXPECT_EQ(own_signals, 1) << "what stood before the service is back";
      return HasFailure();
    });
    EXPECT_EQ(status, 0) << name;
    EXPECT_EQ(commands().find("--no-block stop -- own.service\n"), 0u);
    close(manager_socket);
  }
}

// ---- Installing ---------------------------------------------------------------------------------

psp_status install(const char *name, const char *description = nullptr, const char *path = "a",
                   const char *arguments = "b") {
  return psp_serviceInstall("s", name, "A 5% server\\", description, path, arguments);
}

uint32_t counter() {
  uint32_t count = 0;
  os::service_counter_read("s", &count);
  return count;
}

TEST_F(Service, LifeOfAServiceIsWhatTheManagerIsAsked) {
  ASSERT_EQ(install("x"), PSP_OKAY);
  EXPECT_EQ(
      commands(),
      "cat -- x.service\ndaemon-reload\nenable -- x.service\n--no-block start -- x.service\n");
  const std::string unit = psp::tests::get_file(units / "x.service");
  EXPECT_EQ(unit.find("[Unit]\nDescription=A 5%% server\\ \n\n[Service]\nType=notify\n"
                      "ExecStart=a b\n"),
            0u)
      << unit;
  struct stat status = {};
  for (const char *file : {"units/x.service", "var/11.0/services/s"}) {
    ASSERT_EQ(stat((folder / file).c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777, 0644u);
  }
  EXPECT_EQ(install("x"), PSP_FAILED) << "the name is taken";
  EXPECT_EQ(psp::tests::get_file(units / "x.service"), unit);
  EXPECT_EQ(psp_serviceInstall("s", "y", "", nullptr, "a", nullptr), PSP_OKAY);
  EXPECT_EQ(counter(), 2u);
  commands();
  EXPECT_EQ(psp_serviceUninstall("s", "x"), PSP_OKAY);
  EXPECT_EQ(commands(),
            "stop -- x.service\ndisable -- x.service\ndaemon-reload\nreset-failed -- x.service\n");
  EXPECT_EQ(psp_serviceUninstall("s", "x"), PSP_NOSERVICE);
  EXPECT_EQ(counter(), 1u);
  fail_verb("enable");
  EXPECT_EQ(install("x"), PSP_FAILED);
  EXPECT_EQ(unit_count(), 1u);
  EXPECT_EQ(counter(), 1u);
  // What stop and disable answer decides nothing.
  fail_verb("-- y.service");
  EXPECT_EQ(psp_serviceUninstall("s", "y"), PSP_OKAY);
  EXPECT_EQ(unit_count(), 0u);
  EXPECT_EQ(counter(), 0u);
}

TEST_F(Service, NoTextBecomesMoreThanItself) {
  ASSERT_EQ(install("-n; $(id) \"@\xC3\xA9", "nice\n[Service]\n%n", "\"\\opt\\a b%\\c\"",
                    "-x \"a b\" $HOME\t5% c:\\d\\ \"e\\\"f\\\\\" \"\" ; [g] \\"),
            PSP_OKAY);
  const std::string unit = psp::tests::get_file(
      units / "-n\\x3b\\x20\\x24\\x28id\\x29\\x20\\x22\\x40\\xc3\\xa9.service");
  EXPECT_EQ(unit.substr(0, unit.find("KillMode")),
            "[Unit]\nDescription=A 5%% server\\  - nice [Service] %%n\n\n[Service]\nType=notify\n"
            "ExecStart=\"/opt/a b%%/c\" -x \"a b\" \"$$HOME\" \"5%%\" \"c:\\\\d\\\\\" "
            "\"e\\\"f\\\\\" \"\" \";\" \"[g]\" \"\\\\\"\n");
}

TEST_F(Service, RefusedTextsAndMissingRightsLeaveNothing) {
  const std::string longest(300, 'n'), much(1 << 16, 'm');
  for (const char *name : {"", "a/b", "..\\b", "a\nb", "\x7F", "\xFF", longest.c_str()}) {
    EXPECT_EQ(install(name), PSP_FAILED) << name;
  }
  const std::string deep(PATH_MAX, '/');
  for (const char *path :
       {"", "a\nExecStart=b", "@/a", "\"", "\"/a", " /a", "a/b", "c:\\a", "/a/", deep.c_str()}) {
    EXPECT_EQ(install("x", nullptr, path), PSP_FAILED) << path;
  }
  EXPECT_EQ(install("x", nullptr, "a", "b\nUser=c"), PSP_FAILED);
  EXPECT_EQ(install("x", nullptr, "a", much.c_str()), PSP_FAILED);
  for (int bad = 0; bad < 6; ++bad) {
    const char *texts[6] = {"s", "x", "x", "x", "a", "b"};
    texts[bad] = bad == 3 || bad == 5 ? "\xFF" : nullptr;
    EXPECT_EQ(psp_serviceInstall(texts[0], texts[1], texts[2], texts[3], texts[4], texts[5]),
              PSP_FAILED);
    EXPECT_EQ(psp_serviceUninstall(bad == 0 ? nullptr : "a/b", bad == 1 ? nullptr : "a/b"),
              PSP_FAILED);
  }
  if (getuid() != 0) GTEST_SKIP() << "only root can try it without the right";
  const int status = status_of_child([] {
    return setresuid(65534, 65534, 65534) != 0 || install("x") != PSP_NOACCESS ||
           psp_serviceUninstall("s", "x") != PSP_NOACCESS;
  });
  EXPECT_EQ(status, 0);
  fs::remove_all(units);
  EXPECT_EQ(install("x"), PSP_FAILED);
  EXPECT_FALSE(fs::exists(counters));
}

TEST_F(Service, NamesAndPlacesThatCannotBeAreRefusedByEveryCall) {
  const std::string longest(300, 'n'), deep(PATH_MAX, '/');
  os::ServiceSetup setup = {"s", "x", "x", nullptr, "a", 1};
  uint32_t count = 0;
  for (const std::string &name : {std::string(), std::string("a/b"), longest, longest.substr(48)}) {
    const char *const text = name.c_str();
    setup.name = text;
    EXPECT_NE(os::service_create(setup), 0u);
    EXPECT_NE(os::service_start(text), 0u);
    EXPECT_NE(os::service_find(text), 0u);
    EXPECT_NE(os::service_stop(text), 0u);
    EXPECT_NE(os::service_delete(text), 0u);
    if (name == "a/b") continue;
    EXPECT_NE(os::service_counter_add(text, 1), 0u);
    EXPECT_NE(os::service_counter_read(text, &count), 0u);
  }
  setup.name = "x";
  std::string long_folder = folder;  // which can be made, but hold nothing
  while (long_folder.size() < PATH_MAX - 4) {
    long_folder +=
        '/' + longest.substr(0, std::min<size_t>(200, PATH_MAX - 4 - long_folder.size()));
  }
  for (const std::string &place : {deep, long_folder}) {
    os::ServicePlaces places = os::service_places;
    std::swap(os::service_places, places);
    os::service_places.counters = os::service_places.units = place.c_str();
    EXPECT_EQ(os::service_create(setup), uint32_t{ENAMETOOLONG});
    EXPECT_EQ(os::service_find("x"), uint32_t{ENAMETOOLONG});
    EXPECT_EQ(os::service_delete("x"), uint32_t{ENAMETOOLONG});
    EXPECT_EQ(os::service_counter_add("s", 1), uint32_t{ENAMETOOLONG});
    EXPECT_NE(os::service_counter_read("s", &count), 0u);
    std::swap(os::service_places, places);
  }
}

std::atomic<int> ended_children;

TEST_F(Service, CommandsDisturbNoHandlingOfChildren) {
  signal(SIGCHLD, [](int) {
    ++ended_children;
    while (waitpid(-1, nullptr, WNOHANG) > 0) {
    }
  });
  EXPECT_EQ(install("x"), PSP_OKAY);
  EXPECT_EQ(ended_children, 0);
  signal(SIGCHLD, SIG_IGN);
  EXPECT_EQ(psp_serviceUninstall("s", "x"), PSP_OKAY);
  EXPECT_EQ(install("x"), PSP_OKAY);
  EXPECT_EQ(waitpid(-1, nullptr, __WALL), -1) << "a child is left";
  // A cancelled thread does it all and leaves no lock.
  pthread_t thread;
  const auto install_cancelled = [](void *) -> void * {
    pthread_cancel(pthread_self());
    EXPECT_EQ(install("z"), PSP_OKAY);
    return nullptr;  // no cancellation point was met
  };
  pthread_create(&thread, nullptr, install_cancelled, nullptr);
  void *end = &thread;
  pthread_join(thread, &end);
  EXPECT_EQ(end, nullptr);
  EXPECT_EQ(counter(), 2u);
  os::service_places.systemctl = "/nowhere/systemctl";
  EXPECT_EQ(install("y"), PSP_FAILED);
  EXPECT_EQ(unit_count(), 2u);
  EXPECT_EQ(counter(), 2u);
}

TEST_F(Service, CountersLoseNothingAndNamesStayApart) {
  ASSERT_EQ(os::service_counter_add("s", 0), 0u);
  std::ofstream(counters / ".s.new") << "left by a crash";
  constexpr int kProcesses = 4, kAdditions = 25;
  for (int process = 0; process < kProcesses; ++process) {
    if (fork() != 0) continue;
    for (int n = 0; n < kAdditions; ++n) os::service_counter_add("s", 1);
    _exit(0);
  }
  while (wait(nullptr) > 0) {
  }
  EXPECT_EQ(counter(), 100u);
  struct stat status = {};
  ASSERT_EQ(stat((counters / ".lock").c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 07777, 0600u) << "others could hold all installations up";
  uint32_t count = 0;
  for (const char *name : {".", "..", "../s", ".s.new", "s%", "S_-{[", "s\n"}) {
    EXPECT_NE(os::service_counter_read(name, &count), 0u) << name;
    EXPECT_EQ(os::service_counter_add(name, 7), 0u) << name;
    EXPECT_EQ(os::service_counter_read(name, &count), 0u) << name;
    EXPECT_EQ(count, 7u) << name;
  }
  EXPECT_EQ(counter(), 100u);
  for (const char *text : {"x", "12monkeys"}) {
    std::ofstream(counters / "s") << text;
    EXPECT_NE(os::service_counter_read("s", &count), 0u);
  }
  EXPECT_EQ(os::service_counter_add("s", 1), 0u);
  EXPECT_EQ(counter(), 1u);
  std::ofstream(counters / "s") << "4294967295";
  EXPECT_EQ(os::service_counter_add("s", 1), 0u);
  EXPECT_EQ(counter(), UINT32_MAX);
}

// Asks the manager of this machine, under a name of the test's own.
TEST_F(Service, SystemdStartsStopsAndForgetsIt) {
  if (!fs::exists("/run/systemd/system") || getuid() != 0) {
    GTEST_SKIP() << "systemd does not run on this machine, or the caller is not root";
  }
  std::printf("under the systemd of this machine\n");
  os::service_places.units = "/etc/systemd/system";
  os::service_places.systemctl = "/bin/systemctl";
  const std::string name = "psp-test-" + std::to_string(getpid());
  const std::string started = folder / "started";
  // Ready at once, and gone by the first stop.
  const std::string arguments = "-c \"systemd-notify --ready; touch '" + started +
                                "'; trap 'exit 0' TERM; while :; do sleep 1; done\"";
  ASSERT_EQ(install(name.c_str(), "for a test", "/bin/bash", arguments.c_str()), PSP_OKAY);
  for (int tries = 0; tries < 3000 && !fs::exists(started); ++tries) psp_sleep(10);
  EXPECT_TRUE(fs::exists(started));
  EXPECT_EQ(psp_serviceUninstall("s", name.c_str()), PSP_OKAY);
  EXPECT_EQ(psp_serviceUninstall("s", name.c_str()), PSP_NOSERVICE);
  EXPECT_NE(std::system(("systemctl cat -q " + name + " >/dev/null 2>&1").c_str()), 0);
}

}  // namespace
