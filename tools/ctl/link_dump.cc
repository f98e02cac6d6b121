#include "tools/ctl/link_dump.h"

#include <algorithm>
#include <charconv>
#include <sstream>
#include <string_view>

#include "common/log_texts.h"

namespace vantrel {
namespace {

// Takes the number off the front of |text|, and blanks before it. False when
// there is none; |text| is then as before.
template <typename Number>
bool TakeNumber(std::string_view* text, Number* number) {
  std::string_view rest = *text;
  rest.remove_prefix(std::min(rest.find_first_not_of(' '), rest.size()));
  const auto parsed =
      std::from_chars(rest.data(), rest.data() + rest.size(), *number);
  if (parsed.ec != std::errc()) return false;
  rest.remove_prefix(static_cast<size_t>(parsed.ptr - rest.data()));
  *text = rest;
  return true;
}

bool TakePrefix(std::string_view* text, std::string_view prefix) {
  if (text->substr(0, prefix.size()) != prefix) return false;
  text->remove_prefix(prefix.size());
  return true;
}

bool TakeField(std::string_view* text, std::string_view name,
               uint64_t* number) {
  return TakePrefix(text, name) && TakeNumber(text, number);
}

// Takes what stands before |end|, which must be there, and leaves |end|.
bool TakeUntil(std::string_view* text, std::string_view end,
               std::string* taken) {
  const size_t at = text->find(end);
  if (at == std::string_view::npos) return false;
  *taken = text->substr(0, at);
  text->remove_prefix(at);
  return true;
}

bool ParseStream(std::string_view line, link_dump_t::stream_t* stream) {
  // The daemon receives from the application what goes to the companion.
  return TakeNumber(&line, &stream->id) && TakePrefix(&line, ": ") &&
         TakeUntil(&line, VANTREL_TEXT_DUMP_STREAM_RX, &stream->remote) &&
         TakeField(&line, VANTREL_TEXT_DUMP_STREAM_RX,
                   &stream->traffic.tx_bytes) &&
         TakeField(&line, VANTREL_TEXT_DUMP_STREAM_TX,
                   &stream->traffic.rx_bytes) &&
         TakeField(&line, VANTREL_TEXT_DUMP_STREAM_QUEUED,
                   &stream->waiting_bytes);
}

}  // namespace

link_dump_t ParseDump(const std::string& text) {
  link_dump_t dump;
  std::istringstream lines(text);
  for (std::string line; std::getline(lines, line);) {
    std::string_view rest = line;
    link_dump_t::stream_t stream;
    if (TakeField(&rest, VANTREL_TEXT_DUMP_QUEUED_BYTES, &dump.queued_bytes) ||
        TakeField(&rest, VANTREL_TEXT_DUMP_QUEUED_MESSAGES,
                  &dump.queued_messages)) {
      continue;
    }
    if (ParseStream(line, &stream)) dump.streams.push_back(stream);
  }
  return dump;
}

void StreamOwners::Take(const std::string& message) {
  std::string_view rest = message;
  uint32_t id = 0;
  std::string remote;
  std::string package;
  uint64_t uid = 0;
  if (!TakePrefix(&rest, VANTREL_TEXT_STREAM) || !TakeNumber(&rest, &id) ||
      !TakePrefix(&rest, VANTREL_TEXT_STREAM_OPENED) ||
      !TakeUntil(&rest, VANTREL_TEXT_STREAM_UID, &remote) ||
      !TakeField(&rest, VANTREL_TEXT_STREAM_UID, &uid) ||
      !TakePrefix(&rest, VANTREL_TEXT_STREAM_PACKAGE) ||
      !TakeUntil(&rest, ")", &package)) {
    return;
  }
  owners_[id] = package.empty() ? "uid " + std::to_string(uid) : package;
  if (owners_.size() > kMaxOwners) owners_.erase(owners_.begin());
}

std::string StreamOwners::Find(uint32_t id) const {
  const auto found = owners_.find(id);
  return found == owners_.end() ? "" : found->second;
}

}  // namespace vantrel
