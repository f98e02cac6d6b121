// The entry point of every micro benchmark. Log lines are formatted and written
// as the daemon's are, but to nowhere.
#include <benchmark/benchmark.h>
#include <stdlib.h>

int main(int argc, char** argv) {
  setenv("VANTREL_LOG_FILE", "/dev/null", 0);
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 2;
  benchmark::RunSpecifiedBenchmarks();
  return 0;
}
