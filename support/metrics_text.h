#pragma once

#include <stdint.h>

#include <string>
#include <utility>
#include <vector>

namespace vantrel {

// Figures in the text format that Prometheus collects, version 0.0.4. The
// samples of one metric stand together, behind its heading.
class MetricsText {
 public:
  // Values may have any bytes; names are of [a-z_] only.
  using Labels = std::vector<std::pair<const char*, std::string>>;

  // |type| is "counter" or "gauge"; |help| is one line.
  void Begin(const char* name, const char* type, const char* help);
  // Of the metric that was begun last. Readers take numbers as floating point,
  // exact up to 2^53.
  void Add(const Labels& labels, uint64_t value);
  // The same with three decimals.
  void AddSeconds(const Labels& labels, double value);

  const std::string& Get() const { return text_; }

 private:
  void AddSample(const Labels& labels, const std::string& value);

  const char* name_ = "";
  std::string text_;
};

// |value| as it stands between the quotes of a label. A reader that finds bytes
// that are no UTF-8 takes nothing of the whole text, so these are spelt out, as
// control characters are.
std::string EscapeLabelValue(const std::string& value);

}  // namespace vantrel
