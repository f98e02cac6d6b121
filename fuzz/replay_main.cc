// Runs a fuzz target's function over files, for builds without the fuzzer: each
// argument is a file, or a directory whose files are taken. Fails when there is
// nothing to run.
#include <stdint.h>
#include <stdio.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);
extern "C" __attribute__((weak)) int LLVMFuzzerInitialize(int* argc,
                                                          char*** argv);

namespace {

int Replay(const std::filesystem::path& path) {
  if (std::filesystem::is_directory(path)) {
    int count = 0;
    for (const auto& entry : std::filesystem::directory_iterator(path)) {
      count += Replay(entry.path());
    }
    return count;
  }
  std::ifstream file(path, std::ios::binary);
  const std::string bytes(std::istreambuf_iterator<char>(file), {});
  // Unbuffered: a crash shows the file that caused it.
  fprintf(stderr, "%s\n", path.c_str());
  LLVMFuzzerTestOneInput(reinterpret_cast<const uint8_t*>(bytes.data()),
                         bytes.size());
  return 1;
}

}  // namespace

int main(int argc, char** argv) {
  if (LLVMFuzzerInitialize != nullptr) LLVMFuzzerInitialize(&argc, &argv);
  int count = 0;
  for (int i = 1; i < argc; ++i) {
    if (std::filesystem::exists(argv[i])) count += Replay(argv[i]);
  }
  printf("%d inputs\n", count);
  return count > 0 ? 0 : 1;
}
