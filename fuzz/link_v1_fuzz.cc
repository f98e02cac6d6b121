// The daemon over a link of protocol 1 or 5, which the first byte chooses.
#include "fuzz/fuzz_network.h"
#include "fuzz/link_script.h"

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  vantrel::NeedPrivateNetwork();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  vantrel::FuzzInput input(data, size);
  vantrel::RunLinkScript(&input, (input.TakeU8() & 1) != 0 ? 5 : 1);
  return 0;
}
