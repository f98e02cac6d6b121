#include "support/metrics_text.h"

#include <stdio.h>

#include "common/printable.h"

namespace vantrel {

void MetricsText::Begin(const char* name, const char* type, const char* help) {
  name_ = name;
  text_ += std::string("# HELP ") + name + " " + help + "\n# TYPE " + name +
           " " + type + "\n";
}

void MetricsText::Add(const Labels& labels, uint64_t value) {
  AddSample(labels, std::to_string(value));
}

void MetricsText::AddSeconds(const Labels& labels, double value) {
  char text[64];
  snprintf(text, sizeof(text), "%.3f", value);
  AddSample(labels, text);
}

void MetricsText::AddSample(const Labels& labels, const std::string& value) {
  text_ += name_;
  char before = '{';
  for (const auto& [name, content] : labels) {
    text_ += before;
    text_ += std::string(name) + "=\"" + EscapeLabelValue(content) + '"';
    before = ',';
  }
  if (!labels.empty()) text_ += '}';
  text_ += " " + value + "\n";
}

std::string EscapeLabelValue(const std::string& value) {
  std::string escaped;
  for (const char c : EscapeControls(value)) {
    if (c == '\\' || c == '"') escaped += '\\';
    escaped += c;
  }
  return escaped;
}

}  // namespace vantrel
