// The in-memory store: the input chooses operations on it and on its model. Every result is the
// same; in the end no file is left, nobody holds a page, and the root directory is whole.
#include "fuzz.h"
#include "store_model.h"
#include "support/directory_check.h"

namespace fuzz {

void run(Input input) {
  StoreModel model([&](uint32_t end) { return input.below(end); },
                   [](bool holds, const char *what) { expect(holds, what, __FILE__, __LINE__); });
  while (!input.empty()) model.step();
  model.finish();
  FUZZ_EXPECT(psp::memstore::shmcache_mapped_count == 0);
  psp::memstore::SegmentedFile root;
  FUZZ_EXPECT(root.open(psp::memstore::shmheap_default(), 0));
  FUZZ_EXPECT(psp::memstore::mdir_check(&root) == nullptr);
  root.close();
}

}  // namespace fuzz
