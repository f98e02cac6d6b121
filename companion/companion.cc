#include "companion/companion.h"

#include <errno.h>
#include <signal.h>
#include <stdlib.h>
#include <string.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <algorithm>
#include <asio/post.hpp>
#include <chrono>

#include "common/capabilities.h"
#include "companion/companion_log.h"
#include "companion/datagram_flows.h"

namespace vantrel {
namespace {

// From the signal to the end of the program, with a margin below the 2 s that
// are promised.
constexpr std::chrono::milliseconds kStopTime{1500};
// What a link may always have, however much the others take.
constexpr size_t kStreamsForSure = 64;
// What the program needs besides links.
constexpr size_t kOwnDescriptors = 64;

// Nothing that it does for devices needs a right.
void GiveUpRights() {
  if (prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) == 0 && KeepOnlyCapabilities({})) {
    return;
  }
  ProgramLog().Write(LogLevel::kWarning, LogKind::kLink,
                     "cannot give up capabilities: %s", strerror(errno));
}

// How many of |max_descriptors| streams and flows may take beyond what each
// link has for sure.
size_t GetSharedDescriptors(const Options& options, size_t max_descriptors) {
  const size_t links = options.fd ? 1 : options.max_links;
  const size_t taken = kOwnDescriptors + links * kStreamsForSure;
  return max_descriptors > taken ? max_descriptors - taken : 0;
}

}  // namespace

Companion::Companion(const Options& options, size_t max_descriptors)
    : options_(options),
      loop_(1),
      policy_(options.destination_rules,
              [this](const IpAddress& address) {
                return routes_.IsLocal(address);
              }),
      shared_descriptors_(GetSharedDescriptors(options, max_descriptors)),
      signals_(loop_, SIGINT, SIGTERM, SIGHUP),
      ticker_(loop_),
      watchdog_(loop_),
      stop_timer_(loop_) {
  signals_.add(SIGUSR1);
}

Companion::~Companion() = default;

int Companion::Run() {
  if (options_.fd) {
    AddLink(*options_.fd, "inherited");
  } else if (!OpenListeners()) {
    return EXIT_FAILURE;
  }
  // Only now: a listener's port may be below 1024.
  GiveUpRights();
  WaitForSignal();
  StartWatchdog();
  service_manager_.Notify("READY=1");
  loop_.run();
  return has_failed_ ? EXIT_FAILURE : EXIT_SUCCESS;
}

bool Companion::OpenListeners() {
  const LinkListener::settings_t settings = {options_.allows_remote_links,
                                             options_.security};
  for (const link_address_t& address : options_.listen) {
    listeners_.emplace_back(
        loop_, [this](int fd, const std::string& peer) { TakeLink(fd, peer); });
    if (!listeners_.back().Open(address, settings)) return false;
  }
  return true;
}

void Companion::TakeLink(int fd, const std::string& peer) {
  if (MakeRoom()) return AddLink(fd, peer);
  ProgramLog().Write(LogLevel::kWarning, LogKind::kLink,
                     "link of %s refused: there are %zu links already",
                     peer.c_str(), options_.max_links);
  close(fd);
}

void Companion::AddLink(int fd, const std::string& peer) {
  const uint32_t id = ++last_id_;
  ProgramLog().Write(LogLevel::kInfo, LogKind::kLink, "link %u connected: %s",
                     id, peer.c_str());
  auto link = std::make_unique<DeviceLink>(
      loop_, fd, DeviceLink::settings_t{id, [this] { return GetMaxStreams(); }},
      options_, policy_, [this] { OnLinkChanged(); });
  DeviceLink& added = *link;
  links_.emplace(id, std::move(link));
  added.Start();
  StartTicking();
}

// As many as are left for all: a single link can have half of them, the next
// one a third, and a greedy one never takes them all.
size_t Companion::GetMaxStreams() const {
  size_t used = 0;
  for (const auto& entry : links_) used += entry.second->GetDescriptorCount();
  const size_t left =
      shared_descriptors_ > used ? shared_descriptors_ - used : 0;
  return std::max(kStreamsForSure, left);
}

size_t Companion::CountUp() const {
  return static_cast<size_t>(
      std::count_if(links_.begin(), links_.end(),
                    [](const auto& entry) { return entry.second->IsUp(); }));
}

bool Companion::MakeRoom() {
  if (CountUp() < options_.max_links) return true;
  const SteadyTime now = GetSteadyTime();
  for (const auto& entry : links_) {
    if (!entry.second->IsSilent(now)) continue;
    entry.second->CloseAtOnce("silent, and there is no room for another link");
    return true;
  }
  return false;
}

void Companion::BoundRests() {
  size_t rests = links_.size() - CountUp();
  for (auto next = links_.begin(); rests > options_.max_links;) {
    const auto entry = next++;
    if (entry->second->IsUp()) continue;
    links_.erase(entry);
    --rests;
  }
}

// Later, since a link that tells of its end is in the middle of it.
void Companion::OnLinkChanged() {
  asio::post(loop_, [this] { RemoveLinksThatAreOver(); });
}

void Companion::RemoveLinksThatAreOver() {
  for (auto next = links_.begin(); next != links_.end();) {
    const auto entry = next++;
    if (!entry->second->IsOver()) continue;
    has_failed_ = options_.fd && entry->second->HasFailed();
    links_.erase(entry);
  }
  BoundRests();
  if ((is_stopping_ && CountUp() == 0) || (options_.fd && links_.empty())) {
    loop_.stop();
  }
}

void Companion::WaitForSignal() {
  signals_.async_wait([this](const asio::error_code& error, int signal) {
    if (error) return;
    OnSignal(signal);
    WaitForSignal();
  });
}

void Companion::OnSignal(int signal) {
  switch (signal) {
    case SIGHUP:
      for (const auto& entry : links_) entry.second->ReportNetwork();
      return;
    case SIGUSR1:
      return LogState();
    default:
      return Stop();
  }
}

void Companion::LogState() {
  ProgramLog().Write(LogLevel::kInfo, LogKind::kLink,
                     "state: %zu links up of at most %zu", CountUp(),
                     options_.max_links);
  for (const auto& entry : links_) entry.second->LogState();
}

void Companion::Stop() {
  if (is_stopping_) return;
  is_stopping_ = true;
  service_manager_.Notify("STOPPING=1");
  listeners_.clear();
  for (const auto& entry : links_) {
    entry.second->Close("companion is shutting down");
  }
  stop_timer_.expires_after(kStopTime);
  stop_timer_.async_wait([this](const asio::error_code&) { loop_.stop(); });
  OnLinkChanged();
}

// Only while there are links: nothing else has deadlines.
void Companion::StartTicking() {
  if (is_ticking_) return;
  is_ticking_ = true;
  ticker_.expires_after(std::chrono::seconds(1));
  ticker_.async_wait([this](const asio::error_code&) {
    is_ticking_ = false;
    const SteadyTime now = GetSteadyTime();
    for (const auto& entry : links_) entry.second->OnTick(now);
    if (!links_.empty()) StartTicking();
  });
}

void Companion::StartWatchdog() {
  const auto time = ServiceManager::GetWatchdogTime();
  if (!time) return;
  watchdog_.expires_after(*time / 2);
  watchdog_.async_wait([this](const asio::error_code&) {
    service_manager_.Notify("WATCHDOG=1");
    StartWatchdog();
  });
}

}  // namespace vantrel
