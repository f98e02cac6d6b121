// Rules files: any bytes give rules or lines that say why not, and whatever is
// understood can be printed and asked.
#include <sstream>

#include "common/printable.h"
#include "companion/rules_file.h"
#include "companion/rules_text.h"
#include "fuzz/fuzz_input.h"

namespace vantrel {
namespace {

void CheckLine(const std::string& line) {
  FUZZ_CHECK(!line.empty() && EscapeControls(line) == line);
}

}  // namespace
}  // namespace vantrel

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  using namespace vantrel;
  FuzzInput input(data, size);
  const std::string package = input.TakeShort();
  const rules_reading_t reading = ReadRules(input.TakeRest(), "rules");
  for (const std::string& line : reading.errors) CheckLine(line);
  for (const std::string& line : reading.warnings) CheckLine(line);
  if (!reading.errors.empty()) return 0;
  std::ostringstream out;
  PrintRules(reading.rules, out);
  std::istringstream lines(out.str());
  size_t count = 0;
  for (std::string line; std::getline(lines, line); ++count) CheckLine(line);
  FUZZ_CHECK(count == reading.rules.rules.size());
  flow_facts_t facts;
  facts.has_owner = !package.empty();
  facts.package = package;
  facts.address = static_cast<uint32_t>(size);
  ExplainRules(reading.rules, facts, out);
  bool is_certain = false;
  const rule_t* const rule = FindRule(reading.rules, facts, &is_certain);
  FUZZ_CHECK(is_certain || rule != nullptr);
  return 0;
}
