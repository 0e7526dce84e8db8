// The soak: eight threads go through every family at random, each with faults of its own at random,
// in one life of the library after the other. Afterwards nothing may be held.
//
// usage: psp_soak SECONDS [SEED]
//
// An operation that met no fault must work. One that met some may fail, and then all that this and
// the other threads did before is whole. The seed decides the choices of each thread, but not how
// the threads meet. Exit status 0: every promise held. The runtime's standard error is closed
// to the library's own words, its standard output is read at the end: nothing may stand there.
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <csetjmp>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <memory>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "core/modules.h"
#include "parser/grammars/statements_tables.h"
#include "support/faults.h"

namespace {

using namespace psp::faults;
using std::string;

constexpr int kThreads = 8;
constexpr uint16_t kMemory = PSP_FILE_MEMORY;
constexpr uint32_t kUpdate = PSP_OPEN_READWRITE | PSP_OPEN_CREATE;

FILE *report;                                    // the standard output as it was
string folder;                                   // on the disk, of one life
std::atomic<const char *> now = "at the start";  // what the whole process does

struct IniFile {
  string name;
  uint16_t mode;
};

// What the threads share in one life.
struct Shared {
  psp_tag *tag;
  psp_pool *pool;
  psp_sync lock, gate;
  uint64_t entries = 0;  // under the lock
  psp_queue *queue;
  IniFile inis[2];
} shared;

struct Worker {
  int number;
  std::mt19937 random;
  const char *family = "";
  uint64_t entries = 0;
  psp_tag *tag = nullptr;
  string place[2];  // on the disk and in the store, each with its separator
  IniFile ini;
  int32_t ini_values[3] = {};

  uint32_t pick(uint32_t below) { return static_cast<uint32_t>(random() % below); }
  string text(uint32_t limit) {
    string text;
    for (uint32_t left = pick(limit); left > 0; --left) {
      text += pick(9) == 0 ? "\u00e9" : string(1, static_cast<char>('a' + pick(26)));
    }
    return text;
  }
};
thread_local Worker *me;

void must(bool holds, const char *what) {
  if (holds) return;
  std::fprintf(report, "FAILED: %s: %s\n", now.load(), what);
  if (me != nullptr) std::fprintf(report, "%s, thread %d\n", me->family, me->number);
  std::fflush(report);
  std::abort();
}

// ---- Operations: true if everything worked ------------------------------------------------------

bool use_memory(Worker &w) {
  const size_t size = 1 + w.pick(5000);
  auto *block = static_cast<unsigned char *>(psp_alloc(size, shared.tag));
  auto *zeros = static_cast<unsigned char *>(psp_allocZero(size, nullptr));
  bool ok = block != nullptr && zeros != nullptr;
  if (block != nullptr) {
    std::memset(block, w.number + 1, size);
    void *grown = psp_extendMem(block, size * 3, shared.tag, 1, size * 2, __FILE__, __LINE__);
    if (grown != nullptr) {
      block = static_cast<unsigned char *>(grown);
      must(block[size] == 0 && block[size * 3 - 1] == 0, "grown bytes are zero");
    }
    ok = ok && grown != nullptr;
    must(block[0] == w.number + 1 && block[size - 1] == w.number + 1, "a block keeps its bytes");
    psp_moveMemTag(block, w.tag, shared.tag);
    psp_freeMem(block, w.tag);
  }
  must(zeros == nullptr || (zeros[0] == 0 && zeros[size - 1] == 0), "zeros");
  psp_freeMem(zeros, nullptr);
  return ok;
}

bool jump(Worker &w) {
  static thread_local jmp_buf home;
  static thread_local psp_tag *tag;
  static thread_local bool ok;
  ok = false;
  tag = psp_createTag(w.pick(2) * PSP_TAG_THREADSAFE);
  if (setjmp(home) == 0) {
    psp_resetTag(&home, tag);
    const char *text = psp_makeStr(tag, "%s %d", "text of an armed tag", w.number);
    psp_pool *pool = psp_allocPool(tag, 0, 0);
    void *chunk = psp_getMemFromPool(10 + w.pick(3000), pool, 0, nullptr, __FILE__, __LINE__);
    ok = text != nullptr && chunk != nullptr;
    must(ok || tag == PSP_TAG_FAILED, "an armed tag jumps");
    psp_putInPool(chunk, pool);
    psp_zFreePool(&pool);
  }
  psp_freeTagMemory(tag, 1);
  return ok;
}

bool use_pool(Worker &w) {
  void *chunks[20];
  bool ok = true;
  for (void *&chunk : chunks) {
    const size_t size = 1 + w.pick(300);
    chunk = psp_getMemFromPool(size, shared.pool, PSP_MEM_ZERO, nullptr, __FILE__, __LINE__);
    ok = ok && chunk != nullptr;
    if (chunk != nullptr) std::memset(chunk, 0x55, size);
  }
  for (void *chunk : chunks) psp_putInPool(chunk, shared.pool);
  return ok;
}

bool use_sync(Worker &w) {
  psp_sync gate = psp_syncCreate(PSP_SYNC_EVENT);
  psp_sync lock = psp_syncCreate(PSP_SYNC_EXCL);
  psp_syncEnterExcl(shared.lock);
  psp_syncEnterExcl(lock);
  ++shared.entries;
  ++w.entries;
  psp_syncExitExcl(lock);
  psp_syncExitExcl(shared.lock);
  psp_enterCritSec();
  psp_exitCritSec();
  if (w.pick(2) == 0) psp_syncStart(shared.gate);
  const psp_status waited = psp_syncWait(shared.gate, w.pick(2));
  psp_syncResume(shared.gate);
  psp_syncStart(gate);
  must(gate == PSP_SYNC_NONE || psp_syncWait(gate, 0) == PSP_TIMEOUT, "a closed gate");
  psp_syncDelete(gate);
  psp_syncDelete(lock);
  return gate != PSP_SYNC_NONE && lock != PSP_SYNC_NONE && waited != PSP_FAILED;
}

bool use_format(Worker &w) {
  const auto number = static_cast<int32_t>(w.random());
  const string word = w.text(900);
  char *text = psp_makeString("%d|%s|", number, word.c_str());
  if (text == nullptr) return false;
  must(text == std::to_string(number) + "|" + word + "|", "formatted text");
  psp_freeMem(text, nullptr);
  return true;
}

bool use_utf(Worker &w) {
  const string word = w.text(500);
  psp_wchar *wide = psp_convertToWchar(word.c_str(), PSP_UTF8_STRICT);
  char *narrow = wide != nullptr ? psp_convertToUTF8(wide, PSP_UTF8_STRICT) : nullptr;
  const bool ok = narrow != nullptr;
  must(!ok || word == narrow, "UTF-8, there and back");
  psp_freeMem(narrow, nullptr);
  psp_freeMem(wide, nullptr);
  return ok;
}

bool use_rand(Worker &w) {
  const uint32_t seed = 1 + w.pick(1000);
  psp_rand *generator = psp_randCreate(seed);
  if (generator == nullptr) return false;
  std::mt19937 same(seed);
  for (int count = 0; count < 700; ++count) must(psp_randGetUInt32(generator) == same(), "random");
  psp_randDestroy(generator);
  return true;
}

bool use_time(Worker &) {
  std::tm fields;
  const bool ok = psp_timeLocaltime(psp_timeSecs(), &fields) == &fields;
  psp_sleep(0);
  must(psp_threadId() != 0 && psp_get_pid() == getpid(), "identifiers");
  const psp_wchar *value = psp_getenvW(PSP_W("TEMP"));
  return ok && value != nullptr;
}

bool use_file(Worker &w) {
  const uint32_t where = w.pick(2);
  const uint16_t mode = where == 1 ? kMemory : w.pick(2) * PSP_FILE_DENY_WRITE;
  PSP_FH file = psp_fileOpen((w.place[where] + "file").c_str(), kUpdate | PSP_OPEN_TRUNCATE, mode);
  if (file == nullptr) return false;
  bool ok = psp_fileLock(file) == PSP_OKAY;
  string model;
  for (int writes = 0; writes < 4; ++writes) {
    const string data = w.text(6000) + "$";
    const size_t offset = w.pick(static_cast<uint32_t>(model.size()) + 1);
    const auto count = static_cast<uint32_t>(data.size());
    const int32_t written =
        psp_fileSeekWrite(file, static_cast<int64_t>(offset), data.data(), count);
    ok = ok && written == static_cast<int32_t>(count);
    model.replace(offset, data.size(), data);
  }
  ok = ok && psp_fileUnlock(file) == PSP_OKAY;
  const size_t size = w.pick(12000);
  ok = ok && psp_fileSetSize(file, static_cast<int64_t>(size)) == 0;
  model.resize(size);
  psp_fileSync(file);
  string found(size + 10, '?');
  const int32_t count = psp_fileSeekRead(file, 0, found.data(), static_cast<uint32_t>(size) + 10);
  // A cut that fails says nothing.
  ok = ok && count == static_cast<int32_t>(size) && found.compare(0, size, model) == 0;
  psp_fileClose(file);
  return ok;
}

bool put(const string &name, uint16_t mode, const string &content) {
  PSP_FH file = psp_fileOpen(name.c_str(), kUpdate | PSP_OPEN_TRUNCATE, mode);
  if (file == nullptr) return false;
  const auto count = static_cast<uint32_t>(content.size());
  const bool ok = psp_fileWrite(file, content.data(), count) == static_cast<int32_t>(count);
  psp_fileClose(file);
  return ok;
}

bool use_whole_files(Worker &w) {
  const uint16_t from = w.pick(2) * kMemory, to = w.pick(2) * kMemory;
  const string source = w.place[from != 0] + "source", moved = w.place[from != 0] + "moved";
  const string copy = w.place[to != 0] + "copy", renamed = w.place[to != 0] + "renamed";
  for (const string &name : {source, copy, renamed, moved}) {
    psp_fileRemoveEx(name.c_str(), from);
    psp_fileRemoveEx(name.c_str(), to);
  }
  bool ok = put(source, from, w.text(5000) + ".");
  ok = ok && psp_fileCopyEx(source.c_str(), from, copy.c_str(), to) == PSP_OKAY;
  ok = ok && psp_fileRenameEx(copy.c_str(), to, renamed.c_str(), to) == PSP_OKAY;
  ok = ok && psp_fileCmpEx(source.c_str(), from, renamed.c_str(), to) == PSP_OKAY;
  ok = ok && psp_fileMoveEx(renamed.c_str(), to, moved.c_str(), from) == PSP_OKAY;
  ok = ok && psp_fileCmpEx(source.c_str(), from, moved.c_str(), from) == PSP_OKAY;
  return ok && psp_fileValidateEx(renamed.c_str(), to, nullptr) == 0;
}

bool use_paths(Worker &w) {
  const string one = w.place[0] + "one", two = one + "/two";
  const psp_status made = psp_dirCreateAll(two.c_str());
  bool ok = made == PSP_OKAY || made == PSP_EXISTS;
  psp_pathIter *iterator = psp_pathOpen(one.c_str(), "t*");
  uint32_t is_directory = 0;
  const char *name = iterator != nullptr ? psp_pathNext(iterator, &is_directory) : nullptr;
  ok = ok && name != nullptr && string(name) == "two" && is_directory == 16;
  psp_pathClose(iterator);
  ok = ok && psp_dirRemove(two.c_str()) == PSP_OKAY && psp_dirRemove(one.c_str()) == PSP_OKAY;
  uint32_t counter = 0;
  char *directory = nullptr, *file = nullptr;
  psp_pathSplit(two.c_str(), &directory, &file);
  char *all[] = {psp_currdir(),       psp_fullpath("x"),
                 psp_tmpdir(nullptr), psp_fileCreateTmpName(&counter, nullptr, nullptr, nullptr),
                 directory,           file};
  for (char *text : all) {
    ok = ok && text != nullptr;
    psp_freeMem(text, nullptr);
  }
  return ok;
}

bool use_streams(Worker &w) {
  const uint32_t where = w.pick(2);
  const string name = w.place[where] + "stream", line = w.text(3000) + "\n";
  const uint16_t mode = where == 1 ? kMemory : PSP_FILE_NOSYNC;
  psp_stream *stream = psp_fopenEx(name.c_str(), "w", 1 + w.pick(2), mode);
  bool ok = psp_fputs(line.c_str(), stream) == static_cast<int32_t>(line.size());
  ok = ok && psp_fprintf(stream, "%d\n", w.number) == 2;
  ok = ok && psp_fflush(stream) == 0;
  psp_fclose(stream);
  if (!ok) return false;
  stream = psp_fopenEx(name.c_str(), "r", 0, mode);
  char *buffer = nullptr;
  uint32_t size = 0;
  ok = psp_fGetLine(stream, &buffer, &size) != nullptr && line == buffer;
  ok = ok && psp_fGetLine(stream, &buffer, &size) != nullptr;
  ok = ok && buffer == std::to_string(w.number) + "\n";
  psp_freeMem(buffer, nullptr);
  psp_fclose(stream);
  return ok;
}

bool use_log(Worker &w) {
  const string word = w.text(700);
  bool ok = psp_log("%d says %s\n", w.number, word.c_str()) == 0;
  psp_logChunk *chunk = psp_log_chunk_init();
  psp_log_chunk(chunk, "%s, ", word.c_str());
  psp_log_chunk_end(chunk, "%d\n", w.number);
  ok = ok && chunk != nullptr && psp_printf("%s\n", word.c_str()) == 0;
  psp_log_flush();
  return ok;
}

struct Wire {
  string bytes = {};
  size_t at = 0;
};

bool use_buffers(Worker &w) {
  Wire wire;
  psp_outputBuff *out = nullptr;
  psp_inputBuff *in = nullptr;
  const auto write = [](void *context, const void *data, uint32_t count) -> int32_t {
    static_cast<Wire *>(context)->bytes.append(static_cast<const char *>(data), count);
    return 0;
  };
  const auto read = [](void *context, void *data, uint32_t capacity, uint32_t *filled) -> int32_t {
    Wire &from = *static_cast<Wire *>(context);
    *filled = static_cast<uint32_t>(from.bytes.copy(static_cast<char *>(data), capacity, from.at));
    from.at += *filled;
    return *filled == 0 ? -1 : 0;
  };
  const auto swap = static_cast<uint16_t>(w.pick(2));
  bool ok = psp_outputBuffCreate(write, &wire, swap, &out) == PSP_OKAY;
  ok = psp_inputBuffCreate(read, nullptr, &wire, swap, &in) == PSP_OKAY && ok;
  for (int values = 0; ok && values < 20; ++values) {
    const auto number = static_cast<int64_t>(w.random() * 0x100000001ull);
    const string word = w.text(700);
    ok = psp_outputBuffPutInt64(out, number) == PSP_OKAY &&
         psp_outputBuffPutStringWithLength(out, word.c_str()) == PSP_OKAY &&
         psp_outputBuffFlush(out) == PSP_OKAY;
    int64_t got = 0;
    char *string = nullptr;
    ok = ok && psp_inputBuffGetInt64(in, &got) == PSP_OKAY &&
         psp_inputBuffGetString(in, &string) == PSP_OKAY;
    must(!ok || (got == number && word == string), "values arrive as they were put");
    psp_freeMem(string, nullptr);
  }
  psp_outputBuffDestroy(out);
  psp_inputBuffDestroy(in);
  return ok;
}

// A value is the old one or, if the update says so, the new one; of every key each thread has one.
bool use_ini(Worker &w) {
  const uint32_t which = w.pick(3);
  const IniFile &ini = which < 2 ? shared.inis[which] : w.ini;
  int32_t &value = w.ini_values[which];
  const string key = "key" + std::to_string(w.number);
  const int32_t next = value + 1;
  bool ok = true;
  if (w.pick(3) == 0) {
    ok = psp_iniSetEx(ini.name.c_str(), "s", key.c_str(), std::to_string(next).c_str(), ini.mode) ==
         PSP_OKAY;
  }
  int32_t found = -1;
  const psp_status status = psp_iniInt32Ex(ini.name.c_str(), "s", key.c_str(), &found, ini.mode);
  if (status != PSP_OKAY) return false;
  must(found == value || found == next, "an INI value is the old one or the new one");
  value = found;
  return ok;
}

struct Guest {
  psp_sync gate, lock;
  std::atomic<bool> ran{false};
};

// The thread ends while it holds a lock, which goes to this one.
bool use_threads(Worker &w) {
  Guest guest = {psp_syncCreate(PSP_SYNC_EVENT), psp_syncCreate(PSP_SYNC_EXCL)};
  bool ok = guest.gate != PSP_SYNC_NONE && guest.lock != PSP_SYNC_NONE;
  psp_syncStart(guest.gate);
  psp_threadHandle handle = 0;
  const auto run = [](void *place) {
    auto *own = static_cast<Guest *>(place);
    psp_syncEnterExcl(own->lock);
    own->ran = true;
    psp_syncResume(own->gate);
  };
  const int32_t priority = w.pick(4) == 0 ? PSP_PRIORITY_LOWEST : PSP_PRIORITY_NORMAL;
  ok = ok && psp_threadBeginEx(run, 0, &guest, w.pick(2) == 0 ? &handle : nullptr, priority, 0) ==
                 PSP_OKAY;
  if (ok) {
    while (!guest.ran) ok = psp_syncWait(guest.gate, PSP_NO_LIMIT) == PSP_OKAY && ok;
    psp_syncEnterExcl(guest.lock);
    psp_syncExitExcl(guest.lock);
  }
  psp_syncDelete(guest.gate);
  psp_syncDelete(guest.lock);
  return ok;
}

bool use_queues(Worker &w) {
  constexpr psp_word kMark = 0x5A5A;
  const auto number = static_cast<psp_word>(w.number);
  psp_queueWrite(shared.queue, number, number ^ kMark, 1, w.pick(2) * PSP_QUEUE_URGENT);
  psp_word data = 0, extra = 0;
  if (psp_queueRead(shared.queue, &data, &extra, nullptr, w.pick(2)) == PSP_OKAY) {
    must(data < kThreads && extra == (data ^ kMark), "a message is whole");
  }
  psp_queue *queue = psp_queueCreate(("queue" + std::to_string(w.number)).c_str());
  if (queue == nullptr) return false;
  for (psp_word word = 0; word < 5; ++word) psp_queueWrite(queue, word, 0, word & 1, 0);
  psp_queuePurge(queue, 1);
  bool ok = psp_queueCount(queue) == 3;
  psp_word before = 0;
  while (psp_queueRead(queue, &data, nullptr, nullptr, 0) == PSP_OKAY) {
    must(data >= before && data % 2 == 0, "messages in their order, without those purged");
    before = data;
  }
  ok = ok && psp_queueFind(("queue" + std::to_string(w.number)).c_str()) == queue;
  psp_queueDelete(queue);
  return ok;
}

bool parse(Worker &w) {
  static thread_local uint32_t opening, closing;
  opening = closing = 1 + w.pick(400);
  const auto lexer = [](void *, void *) -> int32_t {
    if (opening > 0) return --opening, STATEMENTS_TOKEN_OPEN;
    return closing > 0 ? (--closing, STATEMENTS_TOKEN_CLOSE) : -1;
  };
  const psp_yyContext context = {8 * (1 + w.pick(5)),
                                 nullptr,
                                 &statements_tables,
                                 lexer,
                                 [](void *, void *, int16_t, void *) -> int16_t { return 0; },
                                 nullptr,
                                 w.pick(2) == 0 ? w.tag : nullptr};
  const int16_t status = psp_yyparse(&context);
  psp_freeTagMemory(w.tag, 0);
  return status == 0;
}

// A few names that every thread makes, writes, reads and removes; a transfer of 64 bytes is whole.
bool use_store(Worker &w) {
  const string name = "\\all\\name" + std::to_string(w.pick(40));
  PSP_FH file = psp_fileOpen(name.c_str(), kUpdate, kMemory);
  char bytes[64];
  std::memset(bytes, 'A' + w.number, sizeof bytes);
  bool ok = file != nullptr && psp_fileSeekWrite(file, 0, bytes, sizeof bytes) == sizeof bytes;
  if (psp_fileSeekRead(file, 0, bytes, sizeof bytes) == sizeof bytes) {
    for (const char byte : bytes) must(byte == bytes[0], "a transfer of the store is whole");
  }
  psp_fileClose(file);
  if (w.pick(2) == 0) psp_fileRemoveEx(name.c_str(), kMemory);
  psp_pathIter *iterator = psp_pathOpenEx("\\all\\", kMemory, "name*");
  ok = ok && iterator != nullptr;
  string before;
  uint32_t kind = 0;
  for (const char *each; (each = psp_pathNext(iterator, &kind)) != nullptr; before = each) {
    must(before < each && kind == 0, "names of the store in their order");
  }
  psp_pathClose(iterator);
  return ok;
}

// ---- The threads --------------------------------------------------------------------------------

struct Family {
  const char *name;
  bool (*act)(Worker &);
  uint32_t weight = 4;  // how often it is chosen
  std::atomic<uint64_t> done{0}, failed{0}, faults{0};
};

Family families[] = {{"memory", use_memory}, {"jumps", jump},
                     {"pools", use_pool},    {"sync", use_sync},
                     {"format", use_format}, {"utf", use_utf},
                     {"rand", use_rand},     {"time", use_time},
                     {"files", use_file},    {"whole files", use_whole_files},
                     {"paths", use_paths},   {"streams", use_streams},
                     {"log", use_log, 1},    {"buffers", use_buffers},
                     {"ini", use_ini, 1},    {"threads", use_threads, 1},
                     {"queues", use_queues}, {"parser", parse},
                     {"store", use_store}};
uint32_t total_weight;

void arm_at_random(Worker &w) {
  constexpr Kind kKinds[] = {Kind::kAllocation,    Kind::kAllocation, Kind::kCall,
                             Kind::kShortTransfer, Kind::kSystemCall, Kind::kSystemShort};
  constexpr psp::os::Error kCodes[] = {EIO, ENOSPC, EACCES, EINTR, ENOENT, EINVAL, EEXIST};
  Fault fault = {.kind = kKinds[w.pick(std::size(kKinds))],
                 .nth = 1 + w.pick(w.pick(4) == 0 ? 40 : 6),
                 .times = w.pick(3) == 0 ? 50u : 1u,
                 .error = kCodes[w.pick(std::size(kCodes))]};
  // An interrupted call is tried on.
  if (fault.kind == Kind::kSystemCall && fault.error == EINTR) fault.times = 1;
  arm(fault);
}

void work(Worker &w, std::chrono::steady_clock::time_point end) {
  me = &w;
  now = "in the threads";
  while (std::chrono::steady_clock::now() < end) {
    uint32_t choice = w.pick(total_weight);
    Family *family = families;
    while (choice >= family->weight) choice -= (family++)->weight;
    w.family = family->name;
    if (w.pick(3) == 0) arm_at_random(w);
    const bool ok = family->act(w);
    const uint32_t faults = disarm().faults;
    must(ok || faults != 0, "failed without a fault");
    ++family->done;
    family->failed += ok ? 0 : 1;
    family->faults += faults;
  }
}

// ---- One life of the library --------------------------------------------------------------------

void share(std::vector<Worker> &workers, uint32_t seed) {
  string keys = "; of all threads\r\n[s]\r\n";
  for (int number = 0; number < kThreads; ++number) {
    const string own = "own" + std::to_string(number);
    keys += "key" + std::to_string(number) + "=0\r\n";
    Worker &w =
        workers.emplace_back(Worker{number, std::mt19937(seed + static_cast<uint32_t>(number))});
    w.place[0] = folder + "/" + own + "/";
    w.place[1] = "\\" + own + "\\";
    std::filesystem::create_directories(w.place[0]);
    w.tag = psp_createTag(0);
    w.ini = {w.place[0] + "own.ini", 0};
    must(put(w.ini.name, 0, keys), "set up");
  }
  shared.inis[0] = {folder + "/all.ini", 0};
  shared.inis[1] = {"\\all\\all.ini", kMemory};
  for (const IniFile &ini : shared.inis) must(put(ini.name, ini.mode, keys), "set up");
  shared.tag = psp_createTag(PSP_TAG_THREADSAFE);
  shared.pool = psp_allocPool(shared.tag, 0, 1);
  shared.lock = psp_syncCreate(PSP_SYNC_EXCL);
  shared.gate = psp_syncCreate(PSP_SYNC_EVENT);
  shared.queue = psp_queueCreate("all");
  shared.entries = 0;
}

void end_empty_tag(psp_tag *tag) {
  const int blocks = held()[0];
  psp_freeTagMemory(tag, 0);
  must(held()[0] == blocks, "the tag is empty");
  psp_freeTagMemory(tag, 1);
}

int count_threads() {
  std::filesystem::directory_iterator threads("/proc/self/task");
  return static_cast<int>(std::distance(begin(threads), {}));
}

// What is held with the store and the INI files emptied, which keep what they like.
Held held_at_rest() {
  psp_iniCleanup();
  psp::core::store_stop();
  const Held rest = held();
  must(psp::core::store_start() == PSP_OKAY, "the store starts again");
  return rest;
}

int count_free_sync_objects() {
  std::vector<psp_sync> objects;
  for (psp_sync object; (object = psp_syncCreate(PSP_SYNC_EVENT)) != PSP_SYNC_NONE;) {
    objects.push_back(object);
  }
  for (const psp_sync object : objects) psp_syncDelete(object);
  return static_cast<int>(objects.size());
}

void run_threads(uint32_t seed, double seconds) {
  const auto end = std::chrono::steady_clock::now() +
                   std::chrono::milliseconds(static_cast<int64_t>(seconds * 1000));
  std::vector<Worker> workers;
  share(workers, seed);
  std::vector<std::thread> threads;
  for (Worker &worker : workers) threads.emplace_back(work, std::ref(worker), end);
  for (std::thread &thread : threads) thread.join();
  now = "after the threads";
  for (const Worker &worker : workers) {
    shared.entries -= worker.entries;
    end_empty_tag(worker.tag);
  }
  must(shared.entries == 0, "the lock lets one in at a time");
  psp_queueTerm(1);
  psp_zFreePool(&shared.pool);
  psp_syncDelete(shared.lock);
  psp_syncDelete(shared.gate);
  end_empty_tag(shared.tag);
}

void live_once(uint32_t seed, double seconds, const char *parent) {
  static int free_sync_objects = -1;
  folder = string(parent) + "/life";
  std::filesystem::create_directory(folder);
  const int threads = count_threads();
  const Held before = held();
  must(psp_init() == PSP_OKAY, "the library starts");
  must(psp_stdout_open("") == PSP_OKAY && psp_log_open((folder + "/log").c_str()) == PSP_OKAY,
       "the channels open");
  must(psp_queueInit(0) == PSP_OKAY, "the queues start");
  use_time(*std::make_unique<Worker>());      // what lasts until the library stops: the answer, and
  psp_freeMem(psp_tmpdir(nullptr), nullptr);  // the name of the temporary directory
  psp_queueTerm(1);
  if (free_sync_objects < 0) free_sync_objects = count_free_sync_objects();
  const Held ready = held_at_rest();
  must(psp_queueInit(0) == PSP_OKAY, "the queues start again");

  run_threads(seed, seconds);
  for (int tries = 0; count_threads() != threads && tries < 1000; ++tries) psp_sleep(10);
  must(count_threads() == threads, "threads as before");
  Held rest = held_at_rest();
  rest[1] = ready[1];  // regions may grow until the library stops
  for (int kind = 0; kind < 3; ++kind) {
    if (rest[kind] != ready[kind]) std::fprintf(report, "%d became %d\n", ready[kind], rest[kind]);
  }
  must(rest == ready, "blocks, regions and descriptors as before the threads");
  must(count_free_sync_objects() == free_sync_objects, "sync objects are back");
  psp_term();
  must(held() == before, "nothing is held after the stop");
  std::fflush(stdout);
  must(std::ftell(stdout) == 0, "no word of the library on the runtime's standard output");
  std::filesystem::remove_all(folder);
  now = "at the start";
}

}  // namespace

int main(int argc, char **argv) {
  const double seconds = argc > 1 ? std::atof(argv[1]) : 0;
  if (seconds <= 0 || argc > 3) {
    std::fprintf(stderr, "usage: psp_soak SECONDS [SEED]\n");
    return 2;
  }
  uint32_t seed = argc > 2 ? static_cast<uint32_t>(std::strtoul(argv[2], nullptr, 0))
                           : static_cast<uint32_t>(std::time(nullptr));
  psp::faults::table_is_kept = false;
  report = stdout;
  stdout = std::tmpfile();
  stderr = std::fopen("/dev/null", "w");
  std::error_code ignored;
  // In memory, where a sync costs nothing, if there is such a place.
  string place = std::filesystem::exists("/dev/shm") ? "/dev/shm" : "/tmp";
  place += "/psp_soak.XXXXXX";
  if (stdout == nullptr || stderr == nullptr || mkdtemp(place.data()) == nullptr) return 2;
  setenv("TEMP", place.c_str(), 1);
  setenv("TZ", "UTC", 1);     // else each look at the zone reads it anew, under an unseen lock
  std::thread([] {}).join();  // a sanitizer starts a thread of its own with the first
  for (const Family &family : families) total_weight += family.weight;
  std::fprintf(report, "seed %u, %d threads, %g s\n", seed, kThreads, seconds);
  std::fflush(report);

  const auto start = std::chrono::steady_clock::now();
  const auto passed = [start] {
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  };
  int lives = 0;
  constexpr double kLifeSeconds = 5, kShortestSeconds = 0.5;
  for (; lives == 0 || seconds - passed() > kShortestSeconds; ++lives) {
    const double left = seconds - passed();
    live_once(seed + static_cast<uint32_t>(lives * kThreads), std::min(left, kLifeSeconds),
              place.c_str());
  }
  std::filesystem::remove_all(place, ignored);
  std::fprintf(report, "%-12s %12s %10s %10s\n", "family", "operations", "failed", "faults");
  uint64_t done = 0, failed = 0, faults = 0;
  for (const Family &family : families) {
    std::fprintf(report, "%-12s %12ju %10ju %10ju\n", family.name, uintmax_t{family.done},
                 uintmax_t{family.failed}, uintmax_t{family.faults});
    done += family.done, failed += family.failed, faults += family.faults;
    if (seconds >= kLifeSeconds) must(family.done != 0, "every family was used");
  }
  std::fprintf(report, "%-12s %12ju %10ju %10ju\n", "all", done, failed, faults);
  std::fprintf(report, "%d lives in %.0f s: every promise held\n", lives, passed());
  return 0;
}
