// Module pspqueue: message queues between the threads of the process.
//
// Owns the registry of queues, newest first, from psp_queueInit to psp_queueTerm. Each queue has a
// tag of its own, which holds its record, its name and the nodes of its messages; nodes are
// obtained many at a time, and those taken out of the line serve later writes.
//
// Locks, in this order: the registry lock, which is there always, guards the list of queues and the
// queues' tags; a queue's reader lock is the turn to wait for a message; its queue lock guards its
// messages. A reader takes the reader lock only when it has to wait or another reader waits; it
// waits at the gate with the reader lock alone. Nothing is reported under any of them.
//
// Whoever sees the effect of a write or a close may delete the queue. So neither touches any part
// of the queue once it has left the queue lock: the gate is opened under it, and the wake-up
// afterwards wants an address only.
#include <cstring>
#include <new>

#include "core/exported_call.h"
#include "core/sync.h"
#include "os/os.h"

namespace psp::os {
namespace {

struct Message {
  psp_word data;
  psp_word extra;
  psp_word type;
};

struct Node {
  Node *next;
  Message message;
};

}  // namespace
}  // namespace psp::os

struct psp_queue {
  psp_queue *older = nullptr;  // the registry, guarded by its lock

  // What the creation set.
  psp_tag *tag = nullptr;                // without a lock: the registry lock guards it
  const char *name = nullptr;            // null: there was no memory for it
  psp_sync available = PSP_SYNC_NONE;    // the gate: closed while a reader waits
  psp_sync reader_lock = PSP_SYNC_NONE;  // see above
  psp_sync queue_lock = PSP_SYNC_NONE;

  psp::os::Node *first PSP_GUARDED_BY(queue_lock) = nullptr;
  psp::os::Node *last PSP_GUARDED_BY(queue_lock) = nullptr;   // means nothing while first is null
  psp::os::Node *spare PSP_GUARDED_BY(queue_lock) = nullptr;  // nodes for later writes
  bool closed PSP_GUARDED_BY(queue_lock) = false;
  bool reader_waits PSP_GUARDED_BY(queue_lock) = false;  // the first message is for that reader
  std::atomic<uint32_t> count{0};  // written under the queue lock, read without
};

namespace psp::os {
namespace {

using core::BriefSyncGuard;
using core::exported_call;
using core::LockGuard;
using core::LockRank;

constexpr char kSource[] = "pspqueue.cpp";

constexpr size_t kNodesAtATime = 31;        // with the block's header about 1 KiB
constexpr size_t kReportedNameBytes = 256;  // of a queue's name in a message
constexpr psp_status kMustWait = -1;        // no result of psp_queueRead

struct State {
  core::Lock lock{LockRank::kQueueRegistry};  // the registry lock
  // The life of the library in which the module was started; 0: it is not started. The queues are
  // void when they belong to an earlier life, which ended without psp_queueTerm.
  uint32_t life PSP_GUARDED_BY(lock) = 0;
  psp_queue *newest PSP_GUARDED_BY(lock) = nullptr;
  uint32_t count PSP_GUARDED_BY(lock) = 0;
};

constinit State state;

// Whether the module is started. It may be stopped as soon as the lock is left.
bool is_started() PSP_REQUIRES(state.lock) {
  return state.life != 0 && state.life == core::sync_life.load(std::memory_order_relaxed);
}

// False, after a message, for no queue. A queue that lost its name is told and used.
bool check_handle(const psp_queue *queue) {
  if (queue == nullptr || queue->name == nullptr) [[unlikely]]
    psp_log("Invalid queue handle");
  return queue != nullptr;
}

// ---- Making and ending --------------------------------------------------------------------------

void delete_sync_objects(const psp_queue &queue) {
  psp_syncDelete(queue.available);
  psp_syncDelete(queue.reader_lock);
  psp_syncDelete(queue.queue_lock);
}

bool make_sync_objects(psp_queue *queue) {
  const auto make = [](int16_t kind, LockRank rank) {
    return core::sync_create(kind, rank, kSource, __LINE__);
  };
  queue->available = make(PSP_SYNC_EVENT, LockRank::kClient);
  if (queue->available != PSP_SYNC_NONE) {
    queue->reader_lock = make(PSP_SYNC_EXCL, LockRank::kQueueReader);
  }
  if (queue->reader_lock != PSP_SYNC_NONE) {
    queue->queue_lock = make(PSP_SYNC_EXCL, LockRank::kQueue);
  }
  if (queue->queue_lock != PSP_SYNC_NONE) return true;
  delete_sync_objects(*queue);
  return false;
}

// A queue in the tag, not yet in the registry; null when anything but its name finds no memory.
psp_queue *make_queue(psp_tag *tag, const char *name) {
  void *memory = psp_getMem(sizeof(psp_queue), tag, PSP_MEM_ALLOC, nullptr, kSource, __LINE__);
  if (memory == nullptr) return nullptr;
  auto *queue = new (memory) psp_queue;
  queue->tag = tag;
  if (!make_sync_objects(queue)) return nullptr;
  if (name == nullptr) name = "";
  queue->name =
      static_cast<const char *>(psp_getMem(0, tag, PSP_MEM_STRDUP, name, kSource, __LINE__));
  return queue;
}

// False when the module is not started.
bool enter_in_registry(psp_queue *queue) {
  const LockGuard guard(state.lock);
  if (!is_started()) return false;
  queue->older = state.newest;
  state.newest = queue;
  ++state.count;
  return true;
}

psp_queue *create_queue(const char *name) {
  psp_tag *tag = psp_createTagEx(nullptr, 0, kSource, __LINE__);
  if (tag == PSP_TAG_FAILED) return nullptr;
  psp_queue *queue = make_queue(tag, name);
  if (queue != nullptr) {
    if (enter_in_registry(queue)) return queue;
    delete_sync_objects(*queue);
  }
  psp_freeTagMemory(tag, 1);
  return nullptr;
}

void close_queue(psp_queue *queue) {
  std::atomic<uint32_t> &gate_word = queue->available->gate.word;
  bool has_sleepers;
  {
    const BriefSyncGuard guard(queue->queue_lock);
    queue->closed = true;
    has_sleepers = queue->available->gate.open();
  }
  if (has_sleepers) wake_all(gate_word);
}

// Ends a queue that is in the registry no more.
void end_queue(psp_queue *queue) PSP_REQUIRES(state.lock) {
  close_queue(queue);
  {
    // Whoever waits for a message leaves now, and whoever is still on its way out.
    const BriefSyncGuard turn(queue->reader_lock);
    const BriefSyncGuard guard(queue->queue_lock);
  }
  delete_sync_objects(*queue);
  psp_freeTagMemory(queue->tag, 1);
}

// False when the queue is not in the registry. It is not touched then: it may be gone.
bool delete_queue(psp_queue *queue) {
  const LockGuard guard(state.lock);
  if (!is_started()) return false;
  psp_queue **link = &state.newest;
  while (*link != nullptr && *link != queue) link = &(*link)->older;
  if (*link == nullptr) return false;
  if (queue->name == nullptr) return true;  // lasts until psp_queueTerm
  *link = queue->older;
  --state.count;
  end_queue(queue);
  return true;
}

void end_all_queues() PSP_REQUIRES(state.lock) {
  while (psp_queue *queue = state.newest) {
    state.newest = queue->older;
    end_queue(queue);
  }
  state.count = 0;
}

// ---- Messages -----------------------------------------------------------------------------------

// Modulo 2^32.
void change_count(psp_queue *queue, uint32_t change) {
  const uint32_t count = queue->count.load(std::memory_order_relaxed);
  queue->count.store(count + change, std::memory_order_relaxed);
}

// Gives the queue nodes for later writes; false when memory is short, which has been reported.
// Obtained under the registry lock, as the queue's tag wants it.
bool add_nodes(psp_queue *queue) {
  Node *nodes;
  {
    const core::PutOffReports put_off;
    const LockGuard guard(state.lock);
    if (!is_started()) return false;
    nodes = static_cast<Node *>(psp_getMem(kNodesAtATime * sizeof(Node), queue->tag, PSP_MEM_ALLOC,
                                           nullptr, kSource, __LINE__));
  }
  if (nodes == nullptr) return false;
  for (size_t index = 0; index + 1 < kNodesAtATime; ++index) nodes[index].next = &nodes[index + 1];
  const BriefSyncGuard guard(queue->queue_lock);
  nodes[kNodesAtATime - 1].next = queue->spare;
  queue->spare = nodes;
  return true;
}

void put_node(psp_queue *queue, Node *node, bool urgent) PSP_REQUIRES(queue->queue_lock) {
  if (queue->first == nullptr) {
    node->next = nullptr;
    queue->first = queue->last = node;
  } else if (urgent) {
    node->next = queue->first;
    queue->first = node;
  } else {
    node->next = nullptr;
    queue->last->next = node;
    queue->last = node;
  }
  change_count(queue, 1);
}

// Puts the message into the line, or drops it when the queue is closed; false, with nothing done,
// when there is no spare node.
bool put_message(psp_queue *queue, const Message &message, bool urgent) {
  std::atomic<uint32_t> &gate_word = queue->available->gate.word;
  bool has_sleepers;
  {
    const BriefSyncGuard guard(queue->queue_lock);
    if (queue->closed) return true;
    Node *node = queue->spare;
    if (node == nullptr) return false;
    queue->spare = node->next;
    node->message = message;
    put_node(queue, node, urgent);
    has_sleepers = queue->available->gate.open();
  }
  if (has_sleepers) wake_all(gate_word);
  return true;
}

// False when there is none.
bool take_message(psp_queue *queue, Message *message) PSP_REQUIRES(queue->queue_lock) {
  Node *node = queue->first;
  if (node == nullptr) return false;
  *message = node->message;
  queue->first = node->next;
  node->next = queue->spare;
  queue->spare = node;
  change_count(queue, UINT32_MAX);
  return true;
}

// What a reader whose turn it is gets without a wait; kMustWait when it has to wait.
psp_status read_at_once(psp_queue *queue, Message *message, uint32_t limit)
    PSP_REQUIRES(queue->queue_lock) {
  if (queue->closed) return PSP_QUEUE_CLOSED;
  if (take_message(queue, message)) return PSP_OKAY;
  return limit == 0 ? PSP_FAILED : kMustWait;
}

// The name, or as many whole characters of it as fit.
void copy_name(char (&copy)[kReportedNameBytes], const char *name) {
  constexpr size_t kLongestCharacter = 4;
  const auto continues_character = [](char c) { return (c & 0xC0) == 0x80; };
  size_t length = std::strlen(name);
  if (length >= sizeof copy) {
    length = sizeof copy - 1;
    while (continues_character(name[length]) && length > sizeof copy - kLongestCharacter) --length;
  }
  std::memcpy(copy, name, length);
  copy[length] = '\0';
}

// A reader gets the turn, and waits for a message if it has to. The gate is closed, and the closed
// flag and the messages are looked at, under one hold of the queue lock, under which every write
// and close opens the gate: no message and no close is missed.
psp_status read_in_turn(psp_queue *queue, Message *message, uint32_t limit) {
  char name[kReportedNameBytes] = "";
  {
    const BriefSyncGuard turn(queue->reader_lock);
    {
      const BriefSyncGuard guard(queue->queue_lock);
      const psp_status status = read_at_once(queue, message, limit);
      if (status != kMustWait) return status;
      queue->available->gate.close();
      queue->reader_waits = true;
    }
    const psp_status waited = psp_syncWait(queue->available, limit);
    const BriefSyncGuard guard(queue->queue_lock);
    queue->reader_waits = false;
    if (waited == PSP_TIMEOUT) return PSP_TIMEOUT;
    const psp_status status = read_at_once(queue, message, 0);
    if (status != PSP_FAILED) return status;
    // Once the locks are left, the queue may be deleted.
    if (queue->name != nullptr) copy_name(name, queue->name);
  }
  psp_log("unexpected empty queue on %s", name);
  return PSP_FAILED;
}

psp_status read_message(psp_queue *queue, Message *message, uint32_t limit) {
  {
    const BriefSyncGuard guard(queue->queue_lock);
    // Without a waiting reader the turn is over as soon as it begins, unless this reader waits.
    if (!queue->reader_waits || queue->closed) [[likely]] {
      const psp_status status = read_at_once(queue, message, limit);
      if (status != kMustWait) return status;
    }
  }
  return read_in_turn(queue, message, limit);
}

// Takes the messages of the type, or all, out of the line; the order of the others stays.
void purge_messages(psp_queue *queue, psp_word type) PSP_REQUIRES(queue->queue_lock) {
  uint32_t removed = 0;
  Node **link = &queue->first;
  Node *last_kept = nullptr;
  while (Node *node = *link) {
    if (type != PSP_QUEUE_ALL_TYPES && node->message.type != type) {
      last_kept = node;
      link = &node->next;
      continue;
    }
    *link = node->next;
    node->next = queue->spare;
    queue->spare = node;
    ++removed;
  }
  queue->last = last_kept;
  change_count(queue, 0 - removed);
}

}  // namespace
}  // namespace psp::os

using namespace psp::os;

psp_status psp_queueInit(int16_t reset) {
  const LockGuard guard(state.lock);
  if (is_started()) {
    if (reset != 0) end_all_queues();
    return PSP_OKAY;
  }
  // The queues of an earlier life went with its tags.
  state.newest = nullptr;
  state.count = 0;
  state.life = psp::core::sync_life.load(std::memory_order_relaxed);
  return is_started() ? PSP_OKAY : PSP_FAILED;
}

void psp_queueTerm(int16_t force) {
  const LockGuard guard(state.lock);
  if (!is_started() || (force == 0 && state.count != 0)) return;
  end_all_queues();
  state.life = 0;
}

psp_queue *psp_queueCreate(const char *name) {
  return exported_call([&] { return create_queue(name); });
}

void psp_queueDelete(psp_queue *queue) {
  if (queue != nullptr && !delete_queue(queue)) psp_log("Deleted too many queues");
}

psp_queue *psp_queueFind(const char *name) {
  const LockGuard guard(state.lock);
  if (name == nullptr || !is_started()) return nullptr;
  psp_queue *queue = state.newest;
  while (queue != nullptr && (queue->name == nullptr || std::strcmp(queue->name, name) != 0)) {
    queue = queue->older;
  }
  return queue;
}

void psp_queueWrite(psp_queue *queue, psp_word data, psp_word extra, psp_word type,
                    uint32_t flags) {
  if (!check_handle(queue)) return;
  const Message message{data, extra, type};
  while (!put_message(queue, message, (flags & PSP_QUEUE_URGENT) != 0)) {
    if (!exported_call([&] { return add_nodes(queue); })) return;
  }
}

psp_status psp_queueRead(psp_queue *queue, psp_word *data, psp_word *extra, psp_word *type,
                         uint32_t limit) {
  if (!check_handle(queue) || data == nullptr) return PSP_FAILED;
  Message message;
  const psp_status status = read_message(queue, &message, limit);
  if (status != PSP_OKAY) return status;
  *data = message.data;
  if (extra != nullptr) *extra = message.extra;
  if (type != nullptr) *type = message.type;
  return PSP_OKAY;
}

void psp_queuePurge(psp_queue *queue, psp_word type) {
  if (!check_handle(queue)) return;
  const BriefSyncGuard guard(queue->queue_lock);
  if (!queue->closed) purge_messages(queue, type);
}

void psp_queueClose(psp_queue *queue) {
  if (queue == nullptr) {
    psp_log("Invalid queue handle");
    return;
  }
  close_queue(queue);
}

uint32_t psp_queueCount(psp_queue *queue) {
  return queue != nullptr ? queue->count.load(std::memory_order_relaxed) : 0;
}
