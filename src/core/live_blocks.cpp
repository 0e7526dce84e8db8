// Reserving and releasing the leaves of the map of live blocks; see live_blocks.h.
#include "core/live_blocks.h"

#include "os/os.h"

namespace psp::core {

void LiveBlocks::release_leaf(uint8_t *leaf) {
  if (leaf != trusted()) os::release_pages(leaf, kLeafBytes);
}

uint8_t *LiveBlocks::reserve(size_t number) {
  auto *leaf = static_cast<uint8_t *>(os::reserve_pages(kLeafBytes));
  if (leaf == nullptr) leaf = trusted();
  uint8_t *present = nullptr;
  if (!leaves_[number].compare_exchange_strong(present, leaf, std::memory_order_acq_rel)) {
    // Another thread was quicker; its leaf counts.
    release_leaf(leaf);
    leaf = present;
  }
  return leaf != trusted() ? leaf : nullptr;
}

void LiveBlocks::release() {
  for (std::atomic<uint8_t *> &slot : leaves_) {
    // Most of the table was never touched: reading it takes no memory, writing would.
    uint8_t *leaf = slot.load(std::memory_order_relaxed);
    if (leaf == nullptr) continue;
    slot.store(nullptr, std::memory_order_relaxed);
    release_leaf(leaf);
  }
}

}  // namespace psp::core
