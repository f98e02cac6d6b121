#include "companion/link_address.h"

namespace vantrel {
namespace {

constexpr int kMaxPort = 65535;
constexpr int kMaxRfcommChannel = 30;

bool IsNumberUpTo(const std::string& text, int max) {
  return !text.empty() && text.size() <= 5 &&
         text.find_first_not_of("0123456789") == std::string::npos &&
         std::stoi(text) <= max;
}

}  // namespace

bool LinkAddress::Parse(const std::string& text, LinkAddress* out) {
  const size_t first = text.find(':');
  const size_t last = text.rfind(':');
  if (first == std::string::npos) return false;
  const std::string kind = text.substr(0, first);
  const std::string rest = text.substr(first + 1);
  *out = LinkAddress();
  if (kind == "unix") {
    out->path_or_host = rest;
    return !rest.empty();
  }
  if (kind == "rfcomm") {
    out->kind = Kind::kRfcomm;
    if (!IsNumberUpTo(rest, kMaxRfcommChannel)) return false;
    out->channel = std::stoi(rest);
    return out->channel > 0;
  }
  if (kind != "tcp" || last <= first + 1) return false;
  out->kind = Kind::kTcp;
  out->port = text.substr(last + 1);
  out->path_or_host = text.substr(first + 1, last - first - 1);
  std::string& host = out->path_or_host;
  if (host.front() == '[' && host.back() == ']') {
    host = host.substr(1, host.size() - 2);
  }
  return IsNumberUpTo(out->port, kMaxPort);
}

}  // namespace vantrel
