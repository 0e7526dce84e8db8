// What the library asks of a platform: everything, and nothing else reaches one.
//
// A port is a folder beside posix/ that implements this header. A comment tells what the function
// must achieve and when it fails: "fails for" names what it has to refuse; any other refusal of the
// platform's is passed on with its code, and what the call had taken is given back. Ground rules:
// - Names are UTF-8, zero-terminated, not null; both separators, slash and backslash, are accepted.
// - Error is the platform's own code (errno, GetLastError); 0 is success. A function that fails
//   also leaves the code in last_error(). Clean-up, waiting and waking leave last_error() alone,
//   and so do file_size, file_sync and directory_next when they succeed: callers clear the code
//   before and look at it afterwards. Pointers to results are not null unless a comment says so,
//   and what they point to counts on success only.
// - Interrupted calls (EINTR) are repeated here and never reach a caller.
// - Every function may be called by any thread at the same time, unless it says otherwise. A File
//   or a Directory is used by one thread at a time. Callbacks are called with nothing held.
// - Nothing here allocates tagged memory, logs, or takes a lock of the library. What a port takes
//   of the C runtime's memory it gives back; without it, it fails like a platform short of memory.
//
// Included by the modules of the library, never by its clients.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <ctime>

#include "psp.h"

namespace psp::os {

using Error = uint32_t;

// ---- Last error ---------------------------------------------------------------------------------

// The calling thread's last error code, which belongs to the platform too: its own calls set it.
// Neither call fails.
Error last_error();
void set_last_error(Error error);

// Keeps the calling thread's last error code as it was across a clean-up or a report.
class LastErrorKeeper {
 public:
  LastErrorKeeper() : error_(last_error()) {}
  ~LastErrorKeeper() { set_last_error(error_); }
  LastErrorKeeper(const LastErrorKeeper &) = delete;
  LastErrorKeeper &operator=(const LastErrorKeeper &) = delete;

 private:
  Error error_;
};

// What the library itself refuses.
enum class Refusal { kInvalidArgument, kAccessDenied, kNotFound };
// The platform's code for a refusal, which a caller cannot tell from the platform's own. Never
// fails, and sets no last error.
Error refusal_code(Refusal refusal);

// ---- Pages --------------------------------------------------------------------------------------

// Address space that reads as zero and takes memory only where it is touched. Null on failure.
// bytes is a multiple of 64 KiB.
void *reserve_pages(size_t bytes);
// Gives all of it back; bytes is what was reserved.
void release_pages(void *pages, size_t bytes);

// ---- Threads and waiting ------------------------------------------------------------------------

enum class WaitResult { kWoken, kTimedOut, kFailed };

inline constexpr uint32_t kNoTimeLimit = UINT32_MAX;

// Waits while word holds expected, until somebody wakes the word or so much time has passed,
// kNoTimeLimit being for ever. May return kWoken without a wake-up or a change; callers look again.
// A change of the word before the call is never missed: the platform compares and sleeps in one
// step. kFailed when it cannot wait.
WaitResult wait_on_address(const std::atomic<uint32_t> &word, uint32_t expected,
                           uint32_t milliseconds);
// Wakes one or all of the threads that wait on the word. Only the address counts: the word may be
// gone already, since whoever was let through may have ended it.
void wake_one(const std::atomic<uint32_t> &word);
void wake_all(const std::atomic<uint32_t> &word);

// One hook, run at the end of each thread that has armed it, after the thread's own code and before
// its storage goes. Removed, it runs nowhere any more. Not run for the thread that ends the
// process. Installing fails when the platform has no room. Both by one thread at a time.
Error install_thread_exit_hook(void (*hook)());
void remove_thread_exit_hook();
// Arms the installed hook for the calling thread, which may do so again inside the hook. False when
// none is installed or the platform has no room.
bool arm_thread_exit_hook();

// A memory barrier in every thread of the process that is running, at the cost of a few
// microseconds for the caller and of nothing for a thread that never needs one. To be enabled
// before it is used, and as often as one likes; false when the platform has none.
bool enable_barrier_in_all_threads();
void barrier_in_all_threads();

// Lets others run.
void yield_thread();
// Suspends the calling thread no shorter than told, however often it is interrupted.
void sleep_milliseconds(uint32_t milliseconds);

// Starts a thread that nobody waits for. stack_bytes 0 is the platform's choice; fewer than
// it can work with are raised, to 64 KiB at least. *handle, if wanted (may be null), designates the
// thread while it runs and is set before the call returns. Fails when there is no memory or no room
// for a thread.
Error thread_start(void (*function)(void *), void *argument, size_t stack_bytes, uintptr_t *handle);
// Starts a thread that thread_wait_end waits for, once, in whichever way it ends. Fails as
// thread_start does.
Error thread_start_awaited(void (*function)(void *), void *argument, uintptr_t *thread);
// Returns when the thread has ended, and gives back what it stood for.
void thread_wait_end(uintptr_t thread);
// Ends the calling thread, with its exit hook.
[[noreturn]] void thread_end();
// Relative to the priority of the process.
enum class ThreadPriority { kLowest, kNormal, kHighest };
// Ranks a thread of this process by the handle of thread_start. Fails for one that has ended and
// where the right is missing.
Error thread_set_priority(uintptr_t handle, ThreadPriority priority);
// A number that no other running thread of the process has, never 0.
uint32_t thread_id();

// ---- Files --------------------------------------------------------------------------------------

// An open file or standard channel. The fields are the platform's own.
struct File {
  intptr_t handle = -1;
  int64_t position = 0;
  uint32_t traits = 0;
};

struct OpenOptions {
  bool read = false;
  bool write = false;
  bool create = false;    // create the file if it is missing
  bool truncate = false;  // with create: empty it, but only once sharing allows the open
  bool deny_read = false;
  bool deny_write = false;
};

// Opens a file, never a directory, at position 0. Fails with a sharing violation (told by
// file_condition) when the options and those of another open handle of this or another process
// exclude each other. Not inherited by other programs. A failed open changes nothing but may have
// created an empty file.
Error file_open(const char *name, const OpenOptions &options, File *file);

// Opens a file for writing whose name file_replace is to give to `replaced`, an existing regular
// file. The file is always a new one, and others may neither write it nor create one of its name
// until it is closed, which may come after the replacement. Before its first byte it has the owner,
// the group and the permissions of the replaced file; an owner that the process may not give is
// left away, and then nobody gets more than he had. One that a killed process left is removed.
// Fails with a sharing violation while another handle has the name, and for a name that stands for
// a link or anything else but a file.
Error file_create_replacement(const char *name, const char *replaced, File *file);

enum class StandardChannel { kInput, kOutput, kError };

// Takes one of the process's standard channels, which file_close must not be called for. A process
// without that channel gives success and a file without a handle (file_has_handle tells). Fails
// where the platform cannot tell.
Error file_standard(StandardChannel channel, File *file);

inline bool file_has_handle(const File &file) { return file.handle != -1; }

// Closes the handle, which is gone even where this fails (a delayed write was lost). Locks and
// denials of the handle end with it.
Error file_close(File *file);

enum class Origin { kStart, kCurrent, kEnd };

// Moves the sequential position. Fails for a negative place and for files without positions.
Error file_seek(File *file, int64_t offset, Origin origin);

// Read at most count bytes (at most 2^31 - 1), at the sequential position, which moves, or at an
// offset, after which the sequential position is open. *done is 0 at the end of the file, and for a
// pipe or a terminal what has come by then, at least 1 byte. Fail for a handle that may not read,
// with a lock violation (see below), and reading at an offset for files without positions.
Error file_read(File *file, void *buffer, uint32_t count, uint32_t *done);
Error file_read_at(File *file, int64_t offset, void *buffer, uint32_t count, uint32_t *done);

// Write count bytes (at most 2^31 - 1), with positions as the reads have them. Success with *done
// below count means that the platform stopped half-way; what stopped it is told by the next write.
// Fail for a handle that may not write, with a lock violation, and at an offset without positions.
Error file_write(File *file, const void *buffer, uint32_t count, uint32_t *done);
Error file_write_at(File *file, int64_t offset, const void *buffer, uint32_t count, uint32_t *done);

// The length in bytes. Fails for what has none: a pipe, a device.
Error file_size(const File &file, int64_t *size);
// Cuts the file at size and moves the sequential position there. Fails with the length unchanged.
Error file_cut(File *file, int64_t size);
// Makes written bytes and the length durable. Fails when that is not certain; not for a pipe or a
// terminal, which keep nothing that could be lost.
Error file_sync(File *file);

// Takes the first byte of the file for this handle, or gives it back; never waits. While a handle
// holds it, reads and writes that touch the byte through other handles fail with a lock violation.
// Taking it twice and giving back what is not held fail.
Error file_lock_first_byte(File *file);
Error file_unlock_first_byte(File *file);

struct FileStatus {
  int64_t size;
  int64_t modified_seconds;  // since 1970-01-01 UTC
  bool is_directory;
  bool is_regular;  // a file with content, no pipe and no device
};

// Asks by name, of a link what it leads to. Fails with kNotFound for a name that does not exist.
Error file_status(const char *name, FileStatus *status);

// What an error of the functions above means to a caller that acts on it.
enum class Condition {
  kOther,
  kEndOfFile,          // a read at or past the end (where the platform calls that an error)
  kLockViolation,      // another handle holds the byte
  kSharingViolation,   // another handle's mode forbids the open
  kTransient,          // buffer or memory short for the moment: the same call may succeed
  kTooLargeForSystem,  // resources short for the size of the request: halves may succeed
  kShortOfMemory,      // both of these (where the platform does not tell them apart)
  kShortOfHandles,     // no more files can be open
  kAlreadyExists,      // the name is taken
  kNotFound,           // the name, or a directory on the way to it, does not exist
  kBufferTooSmall,     // the answer wants more room
  kAccessDenied,       // the caller lacks the right
};

// Never fails: a code that it does not know is kOther, as is 0.
Condition file_condition(Error error);

// ---- Names --------------------------------------------------------------------------------------

// Whether two names spell the same name on this platform (case, separators), without a look at the
// disk; else false.
bool names_are_equal(const char *first, const char *second);
// Tells whether two names lead to the same existing file or directory; fails where that cannot be
// found out.
Error names_lead_to_same_file(const char *first, const char *second, bool *same);
// The name of the file that a link leads to; any other name unchanged. Fails for a link that leads
// nowhere and a buffer that is too small.
Error link_target(const char *name, char *buffer, size_t size);

// Removes a file, of a link the link. Fails for a directory and, with kNotFound, for no name.
Error file_remove(const char *name);
// Renames a file or directory; fails if the new name exists. Moves a file, but no directory, across
// file systems: copied beside the new name, synced, named in one step, and then the old one goes.
// Such a move fails with a sharing violation while another handle may write the file.
Error file_rename(const char *old_name, const char *new_name);
// Gives a file the name of another, which it replaces in one step, and makes the change of names
// durable. The INI update rests on this: whatever happens, one of the two files has the name. The
// replacement may be open. A failure leaves both names as they were; a name that cannot be made
// durable is told by last_error() alone.
Error file_replace(const char *old_name, const char *new_name);

// Makes a directory. Fails with kAlreadyExists where the name is taken.
Error directory_create(const char *name);
// Removes an empty directory. Fails for one that is not empty and, with kNotFound, for no name.
Error directory_remove(const char *name);

// An iteration over the entries of a directory that names of the library can lead to, "." and ".."
// included. The fields are the platform's own.
struct Directory {
  void *state = nullptr;
};
struct DirectoryEntry {
  const char *name;  // UTF-8, valid until the next step
  bool is_directory;
};
// Begins an iteration. Fails for what is no directory or cannot be read.
Error directory_open(const char *name, Directory *directory);
// Ends it.
void directory_close(Directory *directory);
// The next entry. False at the end, and when the directory cannot be read on, which last_error()
// tells: the end leaves it alone.
bool directory_next(Directory *directory, DirectoryEntry *entry);

// The current directory, as the platform spells it. Fails with kBufferTooSmall for a buffer that is
// too small.
Error current_directory(char *buffer, size_t size);
// The system's own temporary directory. Fails as current_directory does.
Error system_temporary_directory(char *buffer, size_t size);

// ---- Time, environment and process --------------------------------------------------------------

// Calendar time, seconds since 1970-01-01 UTC, and its milliseconds (0 to 999); milliseconds may be
// null.
int64_t calendar_seconds(uint32_t *milliseconds);
// The same seconds for much less, at most a tick of the system's clock late, but not before what
// calendar_seconds has told.
int64_t recent_seconds();
// A monotonic counter and its counts per second, a thousand at least; false when the platform has
// none.
bool counter_frequency(int64_t *frequency);
int64_t counter_value();
// The calendar time in the local time zone, as it is set now. False when it cannot be converted.
bool local_time(int64_t seconds, std::tm *result);
// The C runtime's static text of the local time, or null when it cannot be converted. One thread at
// a time.
const char *time_text(int64_t seconds);

// The number of the process, also in a forked child.
int32_t process_id();
// Wide environment and locale. *text is the runtime's own where it has wide ones; elsewhere the
// platform hands out the narrow text and the caller converts: exactly one of the two is set, or
// none where the answer is "not set". name_utf8 is the name in UTF-8, or null where it has none:
// such a name is not set. A locale's name may be null, which queries. To set a locale is for one
// thread at a time.
struct WideAnswer {
  const psp_wchar *wide = nullptr;
  const char *narrow = nullptr;
};
WideAnswer environment_wide(const psp_wchar *name, const char *name_utf8);
WideAnswer locale_wide(int category, const psp_wchar *name, const char *name_utf8);

// The decimal point and the thousands separator of the calling thread's locale. The texts are the
// runtime's and valid until the locale changes. Null where the locale does not know one, which
// POSIX never answers; an empty separator means groups without one, an empty point means none.
const char *decimal_point();
const char *thousands_separator();

// Calls handler, on a thread that is not interrupted by it, for each interrupt (interrupt,
// termination, hang-up). Installing again replaces the handler; it fails, with everything as
// before, when there is no thread or memory for it. Removing restores what the interrupts did
// before, waits for no running handler, and may be called inside one. One thread at a time for the
// two.
Error install_interrupt_handler(void (*handler)());
Error remove_interrupt_handler();

// ---- Services -----------------------------------------------------------------------------------

// Installation counters, which outlive the process and the machine's restart: how often the service
// of a name is installed. Reading one that was never written fails; any process may read.
Error service_counter_read(const char *name, uint32_t *count);
// Adds to a counter, which never gets below 0; one that cannot be read counts as 0. Whatever
// happens, the counter has the old value or the new one, and no addition of another process is
// lost. Fails with the old value, above all where the right is missing.
Error service_counter_add(const char *name, int32_t change);

enum class ServiceRun { kFailed, kNotStartedByManager, kEnded };

// Serves the manager that started this process: calls service_main with its argument, on a thread
// of the platform's choice, and returns after that. kNotStartedByManager at once where there is no
// such manager; kFailed while another call serves, or where the manager refuses. No program that
// this process starts afterwards takes itself for the service.
ServiceRun service_run(const char *name, void (*service_main)(void *), void *argument);

enum class ServiceControl { kStop, kOther };  // a shutdown is a stop

// Inside service_main, before any report: from now on, until service_main returns, each control of
// the manager calls control, on a thread of the platform's own, one call at a time. Fails outside
// service_main and where the manager cannot be reached.
Error service_register(const char *name, void (*control)(ServiceControl control));

enum class ServiceState { kStopped, kStartPending, kStopPending, kRunning };

struct ServiceStatus {
  ServiceState state;
  bool accepts_stop;
  uint32_t check_point;
  uint32_t wait_hint_milliseconds;
};

// Tells the manager; any thread of the service. Waits a few seconds at the most for a manager that
// does not listen, and then fails.
Error service_report(const ServiceStatus &status);

// Fails where there is no manager that this process may manage services with; kAccessDenied tells
// that the right is missing. The functions below want this to have succeeded.
Error service_manager_open();

struct ServiceSetup {
  const char *counter;  // the installation counter
  const char *name;
  const char *display_name;
  const char *description;   // null: none
  const char *command_line;  // the program, a blank, its arguments
  size_t program_bytes;      // how many bytes of it are the program
};

// Makes a service that starts with the system, and raises its counter first, if it can: a service
// that starts uncounted never tells that it is ready. It exists whole or, where this fails, not at
// all; an existing one is never changed, but fails.
Error service_create(const ServiceSetup &setup);
// Asks for the start; waits for nothing. Fails where it cannot be asked for.
Error service_start(const char *name);
// Looks for a service; fails with kNotFound where there is none.
Error service_find(const char *name);
// Sends the stop control. Waits for the end of the service where the manager tells it, unless
// service_run serves in this process: it may be the one. Fails where the manager refuses.
Error service_stop(const char *name);
// Removes a service, running or not: it starts no more. Fails with the service as it was, but
// perhaps no more to be started with the system.
Error service_delete(const char *name);

}  // namespace psp::os
