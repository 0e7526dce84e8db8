// Module psplog: the three output channels of the process (standard output, standard error, log),
// and the messages that go to them.
//
// Owns the channels from start to stop. Each has a stack of outputs, whose top it writes to, and a
// lock that is held for every write and flush, so that a message goes out whole; the log's stamp is
// guarded by the log's lock. Pushing and popping outputs take no lock: nobody may write to the
// channel meanwhile.
//
// Two channels' locks are never held together. Texts are formatted before a lock is taken, and
// nothing is obtained while it is held: a report that memory is gone gets out.
//
// While a channel does not exist, before the start and after the stop and on the way, its messages
// go to the C runtime's standard output or error, through the C runtime's own vfprintf: there "l"
// means what it means to the C runtime.
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include "core/checked.h"
#include "core/exported_call.h"
#include "core/lifecycle.h"
#include "core/modules.h"
#include "core/sync.h"
#include "os/os.h"
#include "streams/stream.h"
#include "text/ascii.h"

namespace psp::streams {

namespace {

constexpr char kSource[] = "psplog.cpp";
constexpr char kLockSource[] = "psp.cpp";

// Formatted texts below this size need no memory.
constexpr size_t kShortTextBytes = 512;

// An output that a channel writes to, shared by all links of the channel that name it.
struct Output {
  char *name;          // null: swallows everything
  psp_stream *stream;  // null exactly if the name is
  uint32_t uses;
};

struct Link {
  Output *output;
  Link *below;
};

struct Channel {
  std::atomic<psp_sync> lock{nullptr};  // null while the channel does not exist
  Link *top = nullptr;
};

// The stamp of a second, with the blanks behind it.
struct Stamp {
  int64_t second = INT64_MIN;
  size_t length = 0;
  char text[32];
};

struct State {
  Channel output;
  Channel error;
  Channel log;
  Stamp stamp = {};
  std::atomic<bool> running_as_service{false};
};

constinit State state;

std::FILE *runtime_stream(const Channel &channel) {
  return &channel == &state.error ? stderr : stdout;
}

// The channel's lock; null while the channel does not exist.
psp_sync lock_of(const Channel &channel) { return channel.lock.load(std::memory_order_acquire); }

// What the channel writes to, if anything.
psp_stream *stream_of(const Channel &channel) {
  return channel.top != nullptr ? channel.top->output->stream : nullptr;
}

// ---- Outputs ------------------------------------------------------------------------------------

bool same_name(const char *first, const char *second) {
  if (first == nullptr || second == nullptr) return first == second;
  while (*first != '\0' && text::to_lower(*first) == text::to_lower(*second)) {
    ++first;
    ++second;
  }
  return text::to_lower(*first) == text::to_lower(*second);
}

Output *find_output(const Channel &channel, const char *name) {
  for (const Link *link = channel.top; link != nullptr; link = link->below) {
    if (same_name(link->output->name, name)) return link->output;
  }
  return nullptr;
}

void destroy_output(Output *output) {
  psp_freeMem(output->name, nullptr);
  psp_fclose(output->stream);
  psp_freeMem(output, nullptr);
}

psp_status make_output(const char *name, Output **result) {
  auto *output = static_cast<Output *>(
      psp_getMem(sizeof(Output), nullptr, PSP_MEM_ZERO, nullptr, kSource, __LINE__));
  if (output == nullptr) return PSP_NOMEMORY;
  *result = output;
  if (name == nullptr) return PSP_OKAY;
  output->name =
      static_cast<char *>(psp_getMem(0, nullptr, PSP_MEM_STRDUP, name, kSource, __LINE__));
  if (output->name != nullptr) output->stream = psp_fopenEx(name, "w", 1, 0);
  if (output->stream != nullptr) return PSP_OKAY;
  const psp_status status = output->name == nullptr ? PSP_NOMEMORY : PSP_FAILED;
  destroy_output(output);
  return status;
}

psp_status push(Channel *channel, const char *name) {
  if (name != nullptr && *name == '\0') name = nullptr;
  auto *link = static_cast<Link *>(
      psp_getMem(sizeof(Link), nullptr, PSP_MEM_ALLOC, nullptr, kSource, __LINE__));
  if (link == nullptr) return PSP_NOMEMORY;
  Output *output = find_output(*channel, name);
  if (output == nullptr) {
    const psp_status status = make_output(name, &output);
    if (status != PSP_OKAY) {
      psp_freeMem(link, nullptr);
      return status;
    }
  }
  ++output->uses;
  *link = {output, channel->top};
  channel->top = link;
  return PSP_OKAY;
}

void pop(Channel *channel) {
  Link *link = channel->top;
  if (link == nullptr) return;
  channel->top = link->below;
  if (--link->output->uses == 0) destroy_output(link->output);
  psp_freeMem(link, nullptr);
}

psp_status push_if_started(Channel *channel, const char *name) {
  if (!core::started() || lock_of(*channel) == nullptr) return PSP_FAILED;
  return core::exported_call([&] { return push(channel, name); });
}

void pop_if_started(Channel *channel) {
  if (!core::started() || lock_of(*channel) == nullptr) return;
  core::exported_call([&] { pop(channel); });
}

psp_status push_joined(const char *first, const char *second) {
  const int32_t length = psp_snprintf(nullptr, 0, "%s%s", first, second);
  if (length < 0) return PSP_FAILED;
  if (!core::started()) return PSP_OKAY;
  const size_t size = static_cast<size_t>(length) + 1;
  auto *name =
      static_cast<char *>(psp_getMem(size, nullptr, PSP_MEM_ALLOC, nullptr, kSource, __LINE__));
  if (name == nullptr) return PSP_NOMEMORY;
  psp_snprintf(name, size, "%s%s", first, second);
  const psp_status status = push_if_started(&state.log, name);
  psp_freeMem(name, nullptr);
  return status;
}

// ---- Start and stop -----------------------------------------------------------------------------

// Makes a channel; others see it when its first output, if it has one, is in place.
psp_status start_channel(Channel *channel, const char *first_output) {
  psp_sync lock = core::sync_create(PSP_SYNC_EXCL, core::LockRank::kChannel, kLockSource, __LINE__);
  if (!core::is_sync_object(lock)) return PSP_FAILED;
  if (first_output != nullptr && push(channel, first_output) != PSP_OKAY) {
    psp_syncDelete(lock);
    return PSP_FAILED;
  }
  channel->lock.store(lock, std::memory_order_release);
  return PSP_OKAY;
}

// Ends a channel if it exists. What the closing of its outputs reports goes to the C runtime.
void stop_channel(Channel *channel) {
  psp_sync lock = channel->lock.exchange(nullptr, std::memory_order_acq_rel);
  if (lock == nullptr) return;
  while (channel->top != nullptr) pop(channel);
  psp_syncDelete(lock);
}

// ---- Messages -----------------------------------------------------------------------------------

// A formatted text: in the caller's frame while it is short, else from the C runtime.
class FormattedText {
 public:
  FormattedText(const char *format, va_list arguments) {
    if (format == nullptr) return;
    va_list again;
    va_copy(again, arguments);
    length_ = psp_vsnprintf(short_, sizeof short_, format, arguments);
    if (length_ >= static_cast<int32_t>(sizeof short_)) format_long(format, again);
    va_end(again);
  }
  ~FormattedText() { std::free(long_); }
  FormattedText(const FormattedText &) = delete;
  FormattedText &operator=(const FormattedText &) = delete;

  // -1 when there is no text: it could not be formatted, or held.
  int32_t length() const { return length_; }
  const char *text() const { return long_ != nullptr ? long_ : short_; }

 private:
  void format_long(const char *format, va_list arguments) {
    const size_t size = static_cast<size_t>(length_) + 1;
    const int32_t measured = length_;
    length_ = -1;
    long_ = static_cast<char *>(std::malloc(size));
    if (long_ == nullptr) return;
    const int32_t formatted = psp_vsnprintf(long_, size, format, arguments);
    // What an argument points to may have grown since it was measured.
    length_ = formatted < measured ? formatted : measured;
  }

  int32_t length_ = -1;
  char *long_ = nullptr;
  char short_[kShortTextBytes];
};

int32_t print(Channel *channel, const char *format, va_list arguments) {
  psp_sync lock = lock_of(*channel);
  if (lock == nullptr) {
    return format != nullptr ? std::vfprintf(runtime_stream(*channel), format, arguments) : -1;
  }
  const FormattedText text(format, arguments);
  const core::SyncGuard guard(lock);
  psp_stream *stream = stream_of(*channel);
  if (stream == nullptr) return 0;
  if (text.length() <= 0) return text.length();
  return put_text(stream, text.text(), static_cast<size_t>(text.length()));
}

void flush(Channel *channel) {
  if (psp_sync lock = lock_of(*channel); lock != nullptr) {
    const core::SyncGuard guard(lock);
    if (psp_stream *stream = stream_of(*channel); stream != nullptr) {
      psp_fflush(stream);
      return;
    }
  }
  std::fflush(runtime_stream(*channel));
}

// The stamp of the present second. It is made anew once a second, since that takes the C runtime's
// lock of the time zone. Empty when the time cannot be told or its text is too long.
const Stamp &present_stamp() {
  constexpr size_t kStampBytes = 30;
  Stamp &stamp = state.stamp;
  const int64_t second = psp_timeSecs();
  if (second == stamp.second) return stamp;
  stamp.second = second;
  stamp.length = 0;
  std::tm local;
  if (psp_timeLocaltime(second, &local) != nullptr) {
    stamp.length = std::strftime(stamp.text, kStampBytes, "[%d-%b-%Y %H:%M:%S]", &local);
  }
  stamp.text[stamp.length++] = ' ';
  stamp.text[stamp.length++] = ' ';
  return stamp;
}

int32_t write_to_console(Channel *target, psp_sync lock, const char *text, size_t length) {
  if (state.running_as_service.load(std::memory_order_relaxed)) return 0;
  const core::SyncGuard guard(lock);
  psp_stream *stream = stream_of(*target);
  if (stream == nullptr) return 0;
  const int32_t result = put_text(stream, text, length);
  psp_fflush(stream);
  return result;
}

void write_to_log(const char *text, size_t length) {
  psp_sync lock = lock_of(state.log);
  if (lock == nullptr) return;
  const core::SyncGuard guard(lock);
  psp_stream *stream = stream_of(state.log);
  if (stream == nullptr) return;
  const Stamp &stamp = present_stamp();
  if (put_text(stream, stamp.text, stamp.length) >= 0) put_text(stream, text, length);
  psp_fflush(stream);
}

// Writes a message, which ends at its first zero byte, to a console channel and to the log. The
// result is the console's.
int32_t write_message(Channel *target, psp_sync lock, const char *text) {
  const size_t length = std::strlen(text);
  const int32_t result = write_to_console(target, lock, text, length);
  write_to_log(text, length);
  return result;
}

int32_t log(Channel *target, const char *format, va_list arguments) {
  const os::LastErrorKeeper keeper;
  if (format == nullptr) return 0;
  psp_sync lock = lock_of(*target);
  if (lock == nullptr) return std::vfprintf(runtime_stream(*target), format, arguments);
  const FormattedText text(format, arguments);
  return text.length() >= 0 ? write_message(target, lock, text.text()) : 0;
}

}  // namespace

void set_running_as_service(bool running) {
  state.running_as_service.store(running, std::memory_order_relaxed);
}

}  // namespace psp::streams

// A message in pieces. The text is null until the first piece.
struct psp_logChunk {
  char *text;
  uint32_t length;
};

namespace psp::streams {

namespace {

// A piece that cannot be formatted or held is left out whole.
void append_piece(psp_logChunk *chunk, const char *format, va_list arguments) {
  va_list again;
  va_copy(again, arguments);
  const int32_t piece = psp_vsnprintf(nullptr, 0, format, arguments);
  uint32_t size = 0;
  char *text = nullptr;
  if (piece >= 0 && checked_add(chunk->length, static_cast<uint32_t>(piece) + 1, &size)) {
    text = static_cast<char *>(std::realloc(chunk->text, size));
  }
  if (text != nullptr) {
    psp_vsnprintf(text + chunk->length, size - chunk->length, format, again);
    *chunk = {text, size - 1};
  }
  va_end(again);
}

void log_chunk(const psp_logChunk &chunk) {
  psp_sync lock = lock_of(state.output);
  if (lock != nullptr) {
    write_message(&state.output, lock, chunk.text);
  } else {
    std::fputs(chunk.text, stdout);
  }
}

void end_chunk(psp_logChunk *chunk, const char *format, va_list arguments) {
  const os::LastErrorKeeper keeper;
  if (format != nullptr) append_piece(chunk, format, arguments);
  if (chunk->text != nullptr) log_chunk(*chunk);
  std::free(chunk->text);
  std::free(chunk);
}

void flush_all() {
  const os::LastErrorKeeper keeper;
  if (!state.running_as_service.load(std::memory_order_relaxed)) {
    flush(&state.output);
    flush(&state.error);
  }
  psp_sync lock = lock_of(state.log);
  if (lock == nullptr) return;
  const core::SyncGuard guard(lock);
  if (psp_stream *stream = stream_of(state.log); stream != nullptr) psp_fflush(stream);
}

}  // namespace
}  // namespace psp::streams

namespace psp::core {

psp_status channels_start() {
  using namespace psp::streams;
  if (start_channel(&state.output, "stdout") == PSP_OKAY &&
      start_channel(&state.error, "stderr") == PSP_OKAY &&
      start_channel(&state.log, nullptr) == PSP_OKAY) {
    return PSP_OKAY;
  }
  channels_stop();
  return PSP_FAILED;
}

void channels_stop() {
  using namespace psp::streams;
  stop_channel(&state.log);
  stop_channel(&state.output);
  stop_channel(&state.error);
}

}  // namespace psp::core

using namespace psp;
using core::exported_call;
using streams::state;

psp_status psp_stdout_open(const char *name) {
  return streams::push_if_started(&state.output, name);
}

psp_status psp_stderr_open(const char *name) {
  return streams::push_if_started(&state.error, name);
}

psp_status psp_log_open(const char *name) { return streams::push_if_started(&state.log, name); }

psp_status psp_log_create(const char *first, const char *second) {
  return exported_call([&] { return streams::push_joined(first, second); });
}

void psp_stdout_close(void) { streams::pop_if_started(&state.output); }

void psp_stderr_close(void) { streams::pop_if_started(&state.error); }

void psp_log_close(void) { streams::pop_if_started(&state.log); }

int32_t psp_printfV(const char *format, va_list arguments) {
  return exported_call([&] { return streams::print(&state.output, format, arguments); });
}

int32_t psp_printf(const char *format, ...) {
  va_list arguments;
  va_start(arguments, format);
  const int32_t result = psp_printfV(format, arguments);
  va_end(arguments);
  return result;
}

int32_t psp_printfErrV(const char *format, va_list arguments) {
  return exported_call([&] { return streams::print(&state.error, format, arguments); });
}

int32_t psp_printfErr(const char *format, ...) {
  va_list arguments;
  va_start(arguments, format);
  const int32_t result = psp_printfErrV(format, arguments);
  va_end(arguments);
  return result;
}

void psp_flush(void) {
  exported_call([] { streams::flush(&state.output); });
}

void psp_flushErr(void) {
  exported_call([] { streams::flush(&state.error); });
}

int32_t psp_logV(const char *format, va_list arguments) {
  return exported_call([&] { return streams::log(&state.output, format, arguments); });
}

int32_t psp_log(const char *format, ...) {
  va_list arguments;
  va_start(arguments, format);
  const int32_t result = psp_logV(format, arguments);
  va_end(arguments);
  return result;
}

int32_t psp_log_err(const char *format, ...) {
  va_list arguments;
  va_start(arguments, format);
  const int32_t result =
      exported_call([&] { return streams::log(&state.error, format, arguments); });
  va_end(arguments);
  return result;
}

psp_logChunk *psp_log_chunk_init(void) {
  if (!core::started()) return nullptr;
  return static_cast<psp_logChunk *>(std::calloc(1, sizeof(psp_logChunk)));
}

void psp_log_chunk(psp_logChunk *chunk, const char *format, ...) {
  if (chunk == nullptr || format == nullptr) return;
  const os::LastErrorKeeper keeper;
  va_list arguments;
  va_start(arguments, format);
  streams::append_piece(chunk, format, arguments);
  va_end(arguments);
}

void psp_log_chunk_end(psp_logChunk *chunk, const char *format, ...) {
  if (chunk == nullptr) return;
  va_list arguments;
  va_start(arguments, format);
  exported_call([&] { streams::end_chunk(chunk, format, arguments); });
  va_end(arguments);
}

void psp_log_flush(void) {
  exported_call([] { streams::flush_all(); });
}
