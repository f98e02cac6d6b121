// The daemon over a link of protocol 20.
#include "fuzz/fuzz_network.h"
#include "fuzz/link_script.h"

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  vantrel::NeedPrivateNetwork();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  vantrel::FuzzInput input(data, size);
  vantrel::RunLinkScript(&input, 20);
  return 0;
}
