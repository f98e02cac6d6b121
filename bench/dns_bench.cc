// Logging a query and its answer of two addresses. The lines are written, to
// nowhere: the system call is part of the price, the disk is not.
#include <benchmark/benchmark.h>

#include <string>

#include "capture/dns.h"
#include "common/hex_testing.h"

namespace vantrel {
namespace {

const HostAndPort kServer = Endpoint("C6336435", 53);
const std::string kQuestion =
    "03 777777 07 6578616D706C65 03 636F6D 00 0001 0001";  // www.example.com
const std::string kAnswer = "C00C 0001 0001 0000003C 0004 C63364";

void LogDnsRequest(benchmark::State& state) {
  const std::string packet = Bytes("0A1B 0100 0001 0000 0000 0000" + kQuestion);
  while (state.KeepRunning()) Dns::LogRequest(kServer, packet);
}

void LogDnsResponse(benchmark::State& state) {
  const std::string packet = Bytes("0A1B 8180 0001 0002 0000 0000" + kQuestion +
                                   kAnswer + "07" + kAnswer + "08");
  while (state.KeepRunning()) Dns::LogResponse(kServer, packet);
}

BENCHMARK(LogDnsRequest);
BENCHMARK(LogDnsResponse);

}  // namespace
}  // namespace vantrel
