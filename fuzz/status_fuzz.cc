// The launcher's reader of the status channel, with what it prints of it: any
// bytes, in one piece or in many, give the same records, each one line, JSON
// that is JSON, and metrics whose labels end.
#include <algorithm>
#include <nlohmann/json.hpp>
#include <sstream>

#include "fuzz/fuzz_input.h"
#include "tools/launch/metrics.h"
#include "tools/launch/status_reader.h"
#include "tools/launch/status_text.h"

namespace vantrel {
namespace {

bool IsUtf8(const std::string& text) {
  // A string that is not makes dump() throw.
  try {
    return !nlohmann::json(text).dump().empty();
  } catch (const nlohmann::json::exception&) {
    return false;
  }
}

// NAME, perhaps {LABEL="VALUE",...}, a blank and digits.
bool IsSample(const std::string& line) {
  bool is_quoted = false;
  size_t end = 0;
  for (; end < line.size() && (is_quoted || line[end] != ' '); ++end) {
    if (line[end] == '"') is_quoted = !is_quoted;
    if (line[end] == '\\') ++end;
  }
  return end + 1 < line.size() &&
         line.find_first_not_of("0123456789", end + 1) == std::string::npos;
}

void CheckMetrics(const std::string& metrics) {
  FUZZ_CHECK(IsUtf8(metrics));
  std::istringstream lines(metrics);
  for (std::string line; std::getline(lines, line);) {
    FUZZ_CHECK(line.rfind("# ", 0) == 0 || IsSample(line));
  }
}

std::string Read(const std::string& bytes, size_t piece,
                 const PackageNames& names) {
  StatusReader reader;
  launch_state_t state;
  std::string text;
  for (size_t at = 0; at < bytes.size(); at += piece) {
    reader.Append(bytes.data() + at, std::min(piece, bytes.size() - at));
    for (status_record_t record; reader.Next(&record);) {
      const std::string json = RecordToJson(record, names);
      const std::string words = RecordToText(record, names);
      FUZZ_CHECK(nlohmann::json::accept(json));
      FUZZ_CHECK((json + words).find('\n') == std::string::npos);
      CountRecord(record, names, &state);
      text += json + words;
    }
  }
  CheckMetrics(FormatMetrics(state, names));
  FUZZ_CHECK(ParseState(StateToJson(state)));
  return text + reader.GetProblem() + reader.DescribeCutRecord();
}

}  // namespace
}  // namespace vantrel

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  using namespace vantrel;
  FuzzInput input(data, size);
  std::istringstream list(input.TakeShort());
  const PackageNames names(list);
  const std::string bytes = input.TakeRest();
  if (bytes.empty()) return 0;
  FUZZ_CHECK(Read(bytes, bytes.size(), names) == Read(bytes, 3, names));
  return 0;
}
