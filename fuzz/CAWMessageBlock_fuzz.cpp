// CAWMessageBlock_fuzz.cpp - operations on chains of blocks, in any order, against plain byte
// strings.
#include "../tests/support/MessageBlockModel.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  // A difference leaves Run() as an exception, which libFuzzer counts as a crash.
  zarn::test::MessageBlockModel(data, size).Run();
  return 0;
}
