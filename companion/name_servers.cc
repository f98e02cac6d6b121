#include "companion/name_servers.h"

#include <netinet/in.h>

#include <fstream>
#include <sstream>
#include <tuple>

#include "companion/companion_log.h"

namespace vantrel {
namespace {

// More than any resolver asks.
constexpr size_t kMaxServers = 8;
constexpr size_t kMaxFileBytes = 64 * 1024;
constexpr std::chrono::seconds kLookEvery{1};

bool IsSame(const struct stat& a, const struct stat& b) {
  const auto key = [](const struct stat& file) {
    return std::make_tuple(file.st_dev, file.st_ino, file.st_size,
                           file.st_mtim.tv_sec, file.st_mtim.tv_nsec);
  };
  return key(a) == key(b);
}

std::string ReadFile(const std::string& path) {
  std::string text(kMaxFileBytes, '\0');
  std::ifstream file(path, std::ios::binary);
  file.read(&text[0], static_cast<std::streamsize>(text.size()));
  text.resize(static_cast<size_t>(file.gcount()));
  return text;
}

}  // namespace

const HostAndPort& NameServers::Get(SteadyTime now) {
  Refresh(now);
  return servers_[current_];
}

uint32_t NameServers::GetEdition(SteadyTime now) {
  Refresh(now);
  return edition_;
}

void NameServers::OnAsked(SteadyTime now) {
  Refresh(now);
  if (!unanswered_since_) {
    unanswered_since_ = now;
  } else if (now - *unanswered_since_ >= kPatience) {
    OnFailed();
    unanswered_since_ = now;
  }
}

void NameServers::OnFailed() {
  unanswered_since_.reset();
  if (servers_.size() < 2) return;
  current_ = (current_ + 1) % servers_.size();
  ++edition_;
}

void NameServers::Refresh(SteadyTime now) {
  if (looked_ && now - *looked_ < kLookEvery) return;
  const bool is_first = !looked_;
  looked_ = now;
  struct stat file = {};
  if (stat(path_.c_str(), &file) == -1) file = {};
  if (!is_first && IsSame(file, file_)) return;
  file_ = file;
  Read();
}

void NameServers::Read() {
  ++edition_;
  servers_.clear();
  current_ = 0;
  unanswered_since_.reset();
  std::istringstream file(ReadFile(path_));
  for (const IpAddress& address : ReadNameServers(file)) {
    if (servers_.size() < kMaxServers) servers_.emplace_back(address, kDnsPort);
  }
  if (servers_.empty()) {
    servers_.emplace_back(
        IpAddress::FromIPv4NetworkBytes(htonl(INADDR_LOOPBACK)), kDnsPort);
  }
  std::string list;
  for (const HostAndPort& server : servers_) {
    list += (list.empty() ? "" : ", ") + server.host.ToString();
  }
  ProgramLog().Write(LogLevel::kInfo, LogKind::kState, "name servers: %s",
                     list.c_str());
}

}  // namespace vantrel
