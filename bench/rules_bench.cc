// Rules files: how long it takes to read one, and to go through its rules for a
// stream that none of them matches.
#include <benchmark/benchmark.h>

#include <string>

#include "companion/rule_match.h"
#include "companion/rules_file.h"

namespace vantrel {
namespace {

std::string MakeFile(int64_t count) {
  std::string text;
  for (int64_t i = 0; i < count; ++i) {
    const std::string number = std::to_string(i);
    text += "[[rule]]\nname = \"" + number +
            "\"\napplication = \"com.example." + number +
            ".*\"\nlimit.down = \"1 MB/s\"\n";
  }
  return text;
}

void Read(benchmark::State& state) {
  const std::string text = MakeFile(state.range(0));
  while (state.KeepRunning()) {
    benchmark::DoNotOptimize(ReadRules(text, "rules"));
  }
}

void Match(benchmark::State& state) {
  const rules_t rules = ReadRules(MakeFile(state.range(0)), "rules").rules;
  flow_facts_t facts;
  facts.has_owner = true;
  facts.uid = 10123;
  facts.package = "com.example.mail";
  while (state.KeepRunning()) {
    bool is_certain = false;
    benchmark::DoNotOptimize(FindRule(rules, facts, &is_certain));
  }
}

BENCHMARK(Read)->ArgName("rules")->Arg(100)->Arg(10000);
BENCHMARK(Match)->ArgName("rules")->Arg(1)->Arg(100)->Arg(10000);

}  // namespace
}  // namespace vantrel
