// Every function of os.h, as lists of X(name, result, parameters, arguments...): those that can
// fail, the transfers of files (which can fail, or move less than asked for), the others, and those
// that do not return.
//
// Included by real_os.cpp, which compiles against the renamed platform layer, and by faults.h. A
// function that os.h gains and this list lacks leaves the fault tests unlinked.
#pragma once

#define PSP_OS_FALLIBLE(X)                                                                         \
  X(reserve_pages, void *, (size_t bytes), bytes)                                                  \
  X(wait_on_address, WaitResult,                                                                   \
    (const std::atomic<uint32_t> &word, uint32_t expected, uint32_t milliseconds), word, expected, \
    milliseconds)                                                                                  \
  X(install_thread_exit_hook, Error, (void (*hook)()), hook)                                       \
  X(enable_barrier_in_all_threads, bool, ())                                                       \
  X(thread_start, Error,                                                                           \
    (void (*function)(void *), void *argument, size_t stack_bytes, uintptr_t *handle), function,   \
    argument, stack_bytes, handle)                                                                 \
  X(thread_set_priority, Error, (uintptr_t handle, ThreadPriority priority), handle, priority)     \
  X(directory_create, Error, (const char *name), name)                                             \
  X(directory_remove, Error, (const char *name), name)                                             \
  X(directory_open, Error, (const char *name, Directory *directory), name, directory)              \
  X(directory_next, bool, (Directory * directory, DirectoryEntry * entry), directory, entry)       \
  X(current_directory, Error, (char *buffer, size_t size), buffer, size)                           \
  X(system_temporary_directory, Error, (char *buffer, size_t size), buffer, size)                  \
  X(arm_thread_exit_hook, bool, ())                                                                \
  X(file_open, Error, (const char *name, const OpenOptions &options, File *file), name, options,   \
    file)                                                                                          \
  X(file_create_replacement, Error, (const char *name, const char *replaced, File *file), name,    \
    replaced, file)                                                                                \
  X(file_standard, Error, (StandardChannel channel, File * file), channel, file)                   \
  X(file_close, Error, (File * file), file)                                                        \
  X(file_seek, Error, (File * file, int64_t offset, Origin origin), file, offset, origin)          \
  X(file_size, Error, (const File &file, int64_t *size), file, size)                               \
  X(file_cut, Error, (File * file, int64_t size), file, size)                                      \
  X(file_sync, Error, (File * file), file)                                                         \
  X(file_lock_first_byte, Error, (File * file), file)                                              \
  X(file_unlock_first_byte, Error, (File * file), file)                                            \
  X(file_status, Error, (const char *name, FileStatus *status), name, status)                      \
  X(file_remove, Error, (const char *name), name)                                                  \
  X(file_rename, Error, (const char *old_name, const char *new_name), old_name, new_name)          \
  X(file_replace, Error, (const char *old_name, const char *new_name), old_name, new_name)         \
  X(names_lead_to_same_file, Error, (const char *first, const char *second, bool *same), first,    \
    second, same)                                                                                  \
  X(link_target, Error, (const char *name, char *buffer, size_t size), name, buffer, size)         \
  X(counter_frequency, bool, (int64_t * frequency), frequency)                                     \
  X(local_time, bool, (int64_t seconds, std::tm * result), seconds, result)                        \
  X(time_text, const char *, (int64_t seconds), seconds)                                           \
  X(environment_wide, WideAnswer, (const psp_wchar *name, const char *name_utf8), name, name_utf8) \
  X(locale_wide, WideAnswer, (int category, const psp_wchar *name, const char *name_utf8),         \
    category, name, name_utf8)                                                                     \
  X(install_interrupt_handler, Error, (void (*handler)()), handler)                                \
  X(remove_interrupt_handler, Error, ())                                                           \
  X(thread_start_awaited, Error, (void (*function)(void *), void *argument, uintptr_t *thread),    \
    function, argument, thread)                                                                    \
  X(service_counter_read, Error, (const char *name, uint32_t *count), name, count)                 \
  X(service_counter_add, Error, (const char *name, int32_t change), name, change)                  \
  X(service_run, ServiceRun, (const char *name, void (*service_main)(void *), void *argument),     \
    name, service_main, argument)                                                                  \
  X(service_register, Error, (const char *name, void (*control)(ServiceControl control)), name,    \
    control)                                                                                       \
  X(service_report, Error, (const ServiceStatus &status), status)                                  \
  X(service_manager_open, Error, ())                                                               \
  X(service_create, Error, (const ServiceSetup &setup), setup)                                     \
  X(service_start, Error, (const char *name), name)                                                \
  X(service_find, Error, (const char *name), name)                                                 \
  X(service_stop, Error, (const char *name), name)                                                 \
  X(service_delete, Error, (const char *name), name)

#define PSP_OS_TRANSFERS(X)                                                                      \
  X(file_read, Error, (File * file, void *buffer, uint32_t count, uint32_t *done), file, buffer, \
    count, done)                                                                                 \
  X(file_read_at, Error,                                                                         \
    (File * file, int64_t offset, void *buffer, uint32_t count, uint32_t *done), file, offset,   \
    buffer, count, done)                                                                         \
  X(file_write, Error, (File * file, const void *buffer, uint32_t count, uint32_t *done), file,  \
    buffer, count, done)                                                                         \
  X(file_write_at, Error,                                                                        \
    (File * file, int64_t offset, const void *buffer, uint32_t count, uint32_t *done), file,     \
    offset, buffer, count, done)

#define PSP_OS_OTHERS(X)                                                           \
  X(last_error, Error, ())                                                         \
  X(refusal_code, Error, (Refusal refusal), refusal)                               \
  X(barrier_in_all_threads, void, ())                                              \
  X(set_last_error, void, (Error error), error)                                    \
  X(release_pages, void, (void *pages, size_t bytes), pages, bytes)                \
  X(wake_one, void, (const std::atomic<uint32_t> &word), word)                     \
  X(wake_all, void, (const std::atomic<uint32_t> &word), word)                     \
  X(remove_thread_exit_hook, void, ())                                             \
  X(thread_wait_end, void, (uintptr_t thread), thread)                             \
  X(thread_id, uint32_t, ())                                                       \
  X(directory_close, void, (Directory * directory), directory)                     \
  X(yield_thread, void, ())                                                        \
  X(sleep_milliseconds, void, (uint32_t milliseconds), milliseconds)               \
  X(file_condition, Condition, (Error error), error)                               \
  X(names_are_equal, bool, (const char *first, const char *second), first, second) \
  X(calendar_seconds, int64_t, (uint32_t * milliseconds), milliseconds)            \
  X(recent_seconds, int64_t, ())                                                   \
  X(counter_value, int64_t, ())                                                    \
  X(process_id, int32_t, ())                                                       \
  X(decimal_point, const char *, ())                                               \
  X(thousands_separator, const char *, ())

// Those that do not return.
#define PSP_OS_ENDS(X) X(thread_end, void, ())

#define PSP_OS_FUNCTIONS(X) \
  PSP_OS_FALLIBLE(X)        \
  PSP_OS_TRANSFERS(X)       \
  PSP_OS_OTHERS(X)          \
  PSP_OS_ENDS(X)
