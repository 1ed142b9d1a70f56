// One libFuzzer target; ZELM_FUZZ_ENTRY names the entry point it runs (see fuzzentries.hpp).
#include <cstdlib>

#include "fuzzentries.hpp"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static const zelmfuzz::entry* e = zelmfuzz::findentry(ZELM_FUZZ_ENTRY);
  if (e == nullptr) std::abort();
  return e->run(data, size);
}
