#include "companion/rules_check.h"

#include <arpa/inet.h>
#include <stdlib.h>

#include <charconv>

#include "common/uid.h"
#include "companion/rules_file.h"
#include "companion/rules_text.h"
#include "support/exit_status.h"

namespace vantrel {
namespace {

template <typename Number>
bool ParseNumber(const std::string& text, Number* number) {
  const char* const end = text.data() + text.size();
  const auto parsed = std::from_chars(text.data(), end, *number);
  return parsed.ec == std::errc() && parsed.ptr == end;
}

flow_facts_t ToFacts(const rules_question_t& question, bool is_metered) {
  flow_facts_t facts;
  facts.has_owner = question.has_owner;
  facts.uid = question.uid;
  if (!question.package.empty()) facts.package = question.package;
  facts.address = question.address;
  facts.port = question.port;
  facts.is_metered = is_metered;
  return facts;
}

}  // namespace

std::optional<rules_question_t> ParseQuestion(const std::string& application,
                                              const std::string& destination) {
  rules_question_t question;
  uint32_t uid = 0;
  if (application == "unknown") {
    question.has_owner = false;
  } else if (ParseNumber(application, &uid) && uid != kNobodyUid) {
    question.uid = uid;
  } else {
    question.package = application;
  }
  const size_t colon = destination.find(':');
  in_addr address;
  if (application.empty() || colon == std::string::npos ||
      inet_pton(AF_INET, destination.substr(0, colon).c_str(), &address) != 1 ||
      !ParseNumber(destination.substr(colon + 1), &question.port)) {
    return std::nullopt;
  }
  question.address = ntohl(address.s_addr);
  return question;
}

int CheckRules(const rules_check_t& check, bool is_metered, std::ostream& out,
               std::ostream& err) {
  const rules_reading_t reading = ReadRulesFile(check.file);
  for (const std::string& error : reading.errors) err << error << std::endl;
  if (!reading.errors.empty()) return kUsageStatus;
  for (const std::string& warning : reading.warnings) {
    err << warning << std::endl;
  }
  if (check.question) {
    ExplainRules(reading.rules, ToFacts(*check.question, is_metered), out);
  } else {
    PrintRules(reading.rules, out);
  }
  return out.flush() ? EXIT_SUCCESS : EXIT_FAILURE;
}

}  // namespace vantrel
