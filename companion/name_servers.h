#pragma once

#include <stddef.h>
#include <stdint.h>
#include <sys/stat.h>

#include <chrono>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "common/host_and_port.h"
#include "support/resolver_file.h"
#include "support/steady_time.h"

namespace vantrel {

constexpr uint16_t kDnsPort = 53;

// The name servers of this machine, as resolv.conf(5) lists them, whatever they
// are now: the file is looked at again, at most once a second, and read again
// when it has changed.
class NameServers {
 public:
  // A question that has no answer for so long moves the next one on.
  static constexpr std::chrono::seconds kPatience{2};

  explicit NameServers(std::string path = kResolverFile)
      : path_(std::move(path)) {}
  NameServers(const NameServers&) = delete;
  NameServers& operator=(const NameServers&) = delete;

  // The one to ask, IPv4 or IPv6. Without any in the file it is the one on this
  // machine, as every resolver takes it.
  const HostAndPort& Get(SteadyTime now);

  // As long as it stays the same, so does what Get() returns.
  uint32_t GetEdition(SteadyTime now);

  // To be told what comes of questions, so that a server that does not answer
  // is not asked for ever: the next in the list is. The first call for a
  // question comes before Get().
  void OnAsked(SteadyTime now);
  void OnAnswered() { unanswered_since_.reset(); }
  void OnFailed();

 private:
  void Refresh(SteadyTime now);
  void Read();

  const std::string path_;
  std::optional<SteadyTime> looked_;
  struct stat file_ = {};  // as it was read; all zero when there was none
  std::vector<HostAndPort> servers_;
  size_t current_ = 0;
  uint32_t edition_ = 0;
  std::optional<SteadyTime> unanswered_since_;
};

}  // namespace vantrel
