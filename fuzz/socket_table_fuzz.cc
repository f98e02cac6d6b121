// The kernel's socket tables: both ways of reading them must agree on any text.
#include "capture/socket_table_path_testing.h"
#include "capture/socket_table_testing.h"
#include "fuzz/fuzz_file.h"
#include "fuzz/fuzz_log.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  using namespace vantrel;
  static const bool silenced = SilenceLog();
  static_cast<void>(silenced);
  static const FuzzFile table;
  SetSocketTableDirectory(FuzzFile::kDirectory);
  table.SetContents(FuzzInput(data, size).TakeRest());
  FUZZ_CHECK(FindAnyDifference(FuzzFile::kDirectory, table.GetName()).empty());
  return 0;
}
