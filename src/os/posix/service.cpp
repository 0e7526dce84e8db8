// Serving the service manager, which is systemd: the states of a service go to it as datagrams, and
// its stop control is SIGTERM.
//
// Owns the manager's address, which is kept for the process's life once it is found, and the socket
// to it, which lives as long as service_run serves. One call serves at a time, and it alone changes
// both; nothing else guards them: reports come from service_main and from its stop control, which
// ends before the socket does. A forked child has its parent's record; by the process that stands
// in it, it knows that it is not meant.
#include "os/posix/posix.h"
// posix.h comes before every system header.
#include <stddef.h>
#include <stdio.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>
#include <unistd.h>

#include <charconv>
#include <cstdlib>

namespace psp::os {
namespace {

constexpr char kManagerVariable[] = "NOTIFY_SOCKET";
constexpr char kProcessVariable[] = "SYSTEMD_EXEC_PID";  // missing under older managers
constexpr time_t kPatienceSeconds = 5;  // with a manager that does not take a datagram
constexpr uint64_t kMicrosecondsPerMillisecond = 1000;
constexpr unsigned long long kYearOfMicroseconds = 365ULL * 24 * 60 * 60 * 1000 * 1000;
constexpr size_t kMessageBytes = 160;

struct Address {
  sockaddr_un place = {};
  socklen_t bytes = 0;
};

struct Manager {
  std::atomic<pid_t> server{0};   // the process in which a call serves
  std::atomic<pid_t> started{0};  // the process that the manager started; 0: not known
  int socket = -1;
  Address address;
  void (*control)(ServiceControl) = nullptr;
};

constinit Manager manager;

// The manager's socket is a path, or, after an @, a name without one.
bool parse_address(const char *text, Address *address) {
  sockaddr_un &place = address->place;
  const size_t length = strlen(text);
  const bool is_abstract = text[0] == '@';
  if ((text[0] != '/' && !is_abstract) || length < 2) return false;
  if (length >= sizeof place.sun_path) return false;
  place.sun_family = AF_UNIX;
  memcpy(place.sun_path, text, length);
  if (is_abstract) place.sun_path[0] = '\0';
  // A path has its zero byte.
  address->bytes =
      static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + length + (is_abstract ? 0 : 1));
  return true;
}

// Whether the text is this process's number; a missing one says nothing.
bool may_be_this_process(const char *text) {
  if (text == nullptr) return true;
  pid_t number = 0;
  const char *end = text + strlen(text);
  const auto [stop, problem] = std::from_chars(text, end, number);
  return problem == std::errc() && stop == end && number == getpid();
}

bool is_known() { return manager.started.load(std::memory_order_acquire) == getpid(); }

// Whether the manager started this process: that is known, or stands in the environment, and then
// address is its. A manager that cannot be told of anything is none.
bool find_manager(Address *address) {
  if (is_known()) return true;
  const char *socket_name = std::getenv(kManagerVariable);
  if (socket_name != nullptr && may_be_this_process(std::getenv(kProcessVariable)) &&
      parse_address(socket_name, address)) {
    return true;
  }
  return is_known();  // another call may have found it meanwhile
}

// The variable goes, so that no program that this one starts takes itself for the service.
void keep_address(const Address &address) {
  if (is_known()) return;
  manager.address = address;
  manager.started.store(getpid(), std::memory_order_release);
  unsetenv(kManagerVariable);
}

// Addressed anew for each datagram: a manager that restarts meanwhile is found again.
Error open_socket() {
  manager.socket = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  if (manager.socket == -1) return last_error();
  const timeval patience = {kPatienceSeconds, 0};
  if (setsockopt(manager.socket, SOL_SOCKET, SO_SNDTIMEO, &patience, sizeof patience) == 0) {
    return 0;
  }
  return last_error();
}

void close_socket() {
  const LastErrorKeeper keeper;
  if (manager.socket != -1) close(manager.socket);
  manager.socket = -1;
}

// The manager kills nothing that takes long as long as it is asked for more time. A start asks
// once, for more than any takes.
int format_message(const ServiceStatus &status, char (&message)[kMessageBytes]) {
  const unsigned long long more_time = status.wait_hint_milliseconds * kMicrosecondsPerMillisecond;
  switch (status.state) {
    case ServiceState::kStartPending:
      return snprintf(message, kMessageBytes,
                      "STATUS=Start pending, check point %u\nEXTEND_TIMEOUT_USEC=%llu",
                      status.check_point, kYearOfMicroseconds);
    case ServiceState::kStopPending:
      return snprintf(message, kMessageBytes,
                      "STOPPING=1\nSTATUS=Stop pending, check point %u\nEXTEND_TIMEOUT_USEC=%llu",
                      status.check_point, more_time);
    case ServiceState::kRunning:
      return snprintf(message, kMessageBytes, "READY=1\nSTATUS=Running");
    case ServiceState::kStopped:
      break;
  }
  return snprintf(message, kMessageBytes, "STOPPING=1\nSTATUS=Stopped");
}

void stop_service() { manager.control(ServiceControl::kStop); }

}  // namespace

bool is_serving() { return manager.server.load(std::memory_order_relaxed) == getpid(); }

ServiceRun service_run(const char *, void (*service_main)(void *), void *argument) {
  Address address;
  if (!find_manager(&address)) return ServiceRun::kNotStartedByManager;
  const pid_t self = getpid();
  if (manager.server.exchange(self, std::memory_order_acquire) == self) return ServiceRun::kFailed;
  keep_address(address);
  service_main(argument);
  remove_stop_control();
  close_socket();
  manager.server.store(0, std::memory_order_release);
  return ServiceRun::kEnded;
}

Error service_register(const char *, void (*control)(ServiceControl)) {
  const Error error = open_socket();
  if (error != 0) return error;
  manager.control = control;
  return install_stop_control(stop_service);
}

Error service_report(const ServiceStatus &status) {
  if (manager.socket == -1) return fail(ENOTCONN);
  char message[kMessageBytes];
  const auto length = static_cast<size_t>(format_message(status, message));
  const ssize_t sent = retry_interrupted([&] {
    return sendto(manager.socket, message, length, MSG_NOSIGNAL,
                  reinterpret_cast<const sockaddr *>(&manager.address.place),
                  manager.address.bytes);
  });
  return sent == -1 ? last_error() : 0;
}

}  // namespace psp::os
