// What the companion's figures are asked for with, and what they are made of:
// requests of scrapers, names of packages in labels, the state that vantrelctl
// reads.
#include <stdexcept>
#include <string>

#include "common/printable.h"
#include "companion/metrics_server.h"
#include "fuzz/fuzz_input.h"
#include "support/companion_state.h"
#include "support/metrics_text.h"

namespace vantrel {
namespace {

// Nothing in it ends the label or the line, or is no UTF-8.
void CheckLabel(const std::string& label) {
  for (size_t at = 0; at < label.size();) {
    FUZZ_CHECK(label[at] != '"' && label[at] != '\n');
    if (label[at] == '\\') {
      ++at;
      FUZZ_CHECK(at < label.size() && (label[at] == '"' || label[at] == '\\'));
    }
    const size_t length = GetUtf8Length(label, at);
    FUZZ_CHECK(length > 0);
    at += length;
  }
}

void CheckState(const std::string& text) {
  try {
    const auto state = ParseCompanionState(text);
    if (!state) return;
    const std::string line = StateToJson(*state);
    FUZZ_CHECK(line == StateToJson(*ParseCompanionState(line)));
  } catch (const std::runtime_error&) {
    // It is no state.
  }
}

}  // namespace
}  // namespace vantrel

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  using namespace vantrel;
  const std::string text = FuzzInput(data, size).TakeRest();
  const int status = JudgeRequest(text);
  FUZZ_CHECK(status == 200 || (status >= 400 && status <= 505));
  CheckLabel(EscapeLabelValue(text));
  CheckState(text);
  return 0;
}
