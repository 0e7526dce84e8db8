// The in-memory store: the input chooses operations on it and on its model. Every result is the
// same, and in the end no file is left.
#include "fuzz.h"
#include "support/store_model.h"

namespace fuzz {

void run(Input input) {
  psp::tests::StoreModel model(
      [&](uint32_t end) { return input.below(end); },
      [](bool holds, const char *what) { expect(holds, what, __FILE__, __LINE__); });
  while (!input.empty()) model.step();
  model.finish();
}

}  // namespace fuzz
