// Serving the service manager, which is systemd: the states of a service go to it as datagrams, and
// its stop control is SIGTERM.
//
// Owns the socket to the manager, which lives as long as service_run serves. A flag lets one call
// serve at a time; nothing else guards it: reports come from service_main and from its stop
// control, which ends before the socket does.
#include "os/posix/posix.h"
// posix.h comes before every system header.
#include <stddef.h>
#include <stdio.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstdlib>

namespace psp::os {
namespace {

constexpr char kManagerVariable[] = "NOTIFY_SOCKET";
constexpr time_t kPatienceSeconds = 5;  // with a manager that does not take a datagram
constexpr uint64_t kMicrosecondsPerMillisecond = 1000;
constexpr size_t kMessageBytes = 160;

struct Manager {
  std::atomic<bool> served{false};
  int socket = -1;
  sockaddr_un address = {};
  socklen_t address_bytes = 0;
  void (*control)(ServiceControl) = nullptr;
};

constinit Manager manager;

// The manager's socket is a path, or, after an @, a name without one.
Error find_address(const char *text) {
  sockaddr_un &address = manager.address;
  const size_t length = strlen(text);
  if ((text[0] != '/' && text[0] != '@') || length < 2) return fail(EAFNOSUPPORT);
  if (length >= sizeof address.sun_path) return fail(ENAMETOOLONG);
  address = {};
  address.sun_family = AF_UNIX;
  memcpy(address.sun_path, text, length);
  size_t bytes = offsetof(sockaddr_un, sun_path) + length;
  if (text[0] == '@') {
    address.sun_path[0] = '\0';
  } else {
    ++bytes;  // the zero byte of a path
  }
  manager.address_bytes = static_cast<socklen_t>(bytes);
  return 0;
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

// The manager kills nothing that takes long as long as it is asked for more time.
int format_message(const ServiceStatus &status, char (&message)[kMessageBytes]) {
  const unsigned long long more_time = status.wait_hint_milliseconds * kMicrosecondsPerMillisecond;
  switch (status.state) {
    case ServiceState::kStartPending:
      return snprintf(message, kMessageBytes,
                      "STATUS=Start pending, check point %u\nEXTEND_TIMEOUT_USEC=%llu",
                      status.check_point, more_time);
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

ServiceRun service_run(const char *, void (*service_main)(void *), void *argument) {
  const char *socket_name = std::getenv(kManagerVariable);
  if (socket_name == nullptr || *socket_name == '\0') return ServiceRun::kNotStartedByManager;
  if (manager.served.exchange(true, std::memory_order_acquire)) return ServiceRun::kFailed;
  service_main(argument);
  remove_stop_control();
  close_socket();
  manager.served.store(false, std::memory_order_release);
  return ServiceRun::kEnded;
}

Error service_register(const char *, void (*control)(ServiceControl)) {
  const char *socket_name = std::getenv(kManagerVariable);
  if (socket_name == nullptr) return fail(EAFNOSUPPORT);
  Error error = find_address(socket_name);
  if (error == 0) error = open_socket();
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
                  reinterpret_cast<const sockaddr *>(&manager.address), manager.address_bytes);
  });
  return sent == -1 ? last_error() : 0;
}

}  // namespace psp::os
