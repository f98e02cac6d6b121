#include "companion/companion.h"

#include <errno.h>
#include <signal.h>
#include <stdlib.h>
#include <string.h>
#include <sys/prctl.h>

#include <algorithm>
#include <asio/post.hpp>
#include <chrono>
#include <exception>
#include <new>
#include <thread>
#include <utility>

#include "common/capabilities.h"
#include "companion/companion_log.h"
#include "companion/memory_reserve.h"
#include "support/exit_status.h"

namespace vantrel {
namespace {

// From the signal to the end of the program, with a margin below the 2 s that
// are promised.
constexpr std::chrono::milliseconds kStopTime{1500};
// Failures that no link is the cause of make no busy loop.
constexpr std::chrono::milliseconds kPauseAfterFailure{10};
// What the program needs besides links and listeners, and a little more.
constexpr size_t kOwnDescriptors = 24;

// Nothing that it does for devices needs a right.
void GiveUpRights() {
  if (prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) == 0 && KeepOnlyCapabilities({})) {
    return;
  }
  ProgramLog().Write(LogLevel::kWarning, LogKind::kLink,
                     "cannot give up capabilities: %s", strerror(errno));
}

}  // namespace

Companion::Companion(const companion_options_t& options, size_t max_descriptors)
    : options_(options),
      loop_(1),
      policy_(options.destination_rules,
              [this](const IpAddress& address) {
                return routes_.IsLocal(address);
              }),
      destinations_(policy_, name_servers_, options.look_ups),
      rules_(loop_, options.rules,
             [this] { AskAll([](DeviceLink& link) { link.ReviewRules(); }); }),
      sockets_(max_descriptors,
               kOwnDescriptors + options.listen.size() +
                   Reporter::CountDescriptors(options),
               options.fd ? 1 : options.max_links),
      turns_(loop_),
      signals_(loop_, SIGINT, SIGTERM, SIGHUP),
      ticker_(loop_, [this] { OnTick(); }),
      watchdog_(loop_, [this] { OnWatchdog(); }),
      stop_timer_(loop_, [this] { loop_.stop(); }),
      reporter_(loop_, options, [this] { return GetLinks(); }) {
  signals_.add(SIGUSR1);
}

Companion::~Companion() = default;

int Companion::Run() {
  if (!rules_.Read()) return kUsageStatus;
  if (!reporter_.Open(sockets_.GetMaxLinks())) return EXIT_FAILURE;
  if (options_.fd) {
    AddLink(UniqueFd(*options_.fd), MakeLinkPeer("inherited", kFdLink));
  } else if (!OpenListeners()) {
    return EXIT_FAILURE;
  }
  // Only now: a listener's port may be below 1024.
  GiveUpRights();
  if (!options_.fd && sockets_.GetMaxLinks() < options_.max_links) {
    ProgramLog().Write(LogLevel::kWarning, LogKind::kLink,
                       "the limit of open files is enough for %zu links only",
                       sockets_.GetMaxLinks());
  }
  routes_.Watch(loop_, [this] { policy_.OnChange(); });
  WaitForSignal();
  StartWatchdog();
  service_manager_.Notify("READY=1");
  RunLoop();
  reporter_.Finish();
  return has_failed_ ? EXIT_FAILURE : EXIT_SUCCESS;
}

void Companion::RunLoop() {
  bool has_failed = false;
  while (true) {
    try {
      if (has_failed) GoOn();
      loop_.run();
      return;
    } catch (const std::bad_alloc&) {
      ProgramLog().Write(LogLevel::kError, LogKind::kLibrary, "out of memory");
    } catch (const std::exception& e) {
      ProgramLog().Write(LogLevel::kError, LogKind::kLibrary, "%s", e.what());
    }
    has_failed = true;
    // Somebody else may have some memory back by then.
    std::this_thread::sleep_for(kPauseAfterFailure);
    KeepMemoryReserve();
  }
}

// The handler that failed was no link's. Whichever it was, it has not begun to
// wait again.
void Companion::GoOn() {
  for (LinkListener& listener : listeners_) listener.GoOn();
  if (bluetooth_) bluetooth_->GoOn();
  reporter_.GoOn();
  turns_.GoOn();
  signals_.cancel();
  WaitForSignal();
  is_ticking_ = false;
  StartTicking();
  StartWatchdog();
  if (is_stopping_) stop_timer_.WaitFor(kStopTime);
}

bool Companion::OpenListeners() {
  const LinkListener::settings_t settings = {options_.allows_remote_links,
                                             options_.security};
  for (const link_address_t& address : options_.listen) {
    if (address.kind == link_address_t::Kind::kBluetooth) {
      if (!OpenBluetooth()) return false;
      continue;
    }
    listeners_.emplace_back(
        loop_, [this, &address](UniqueFd fd, const std::string& peer) {
          TakeLink(std::move(fd), MakeLinkPeer(peer, address.text));
        });
    if (!listeners_.back().Open(address, settings)) return false;
  }
  return true;
}

bool Companion::OpenBluetooth() {
  bluetooth_ = std::make_unique<BluetoothListener>(
      loop_, [this](UniqueFd fd, const std::string& peer) {
        TakeLink(std::move(fd), MakeLinkPeer(peer, kBluetoothLink));
      });
  return bluetooth_->Open(options_.security) || options_.listens_by_default;
}

void Companion::TakeLink(UniqueFd fd, const link_peer_t& peer) {
  if (MakeRoom()) return AddLink(std::move(fd), peer);
  ProgramLog().Write(LogLevel::kWarning, LogKind::kLink,
                     "link of %s refused: there are %zu links already",
                     peer.text.c_str(), sockets_.GetMaxLinks());
}

void Companion::AddLink(UniqueFd fd, const link_peer_t& peer) {
  const uint32_t id = ++last_id_;
  ProgramLog().Write(LogLevel::kInfo, LogKind::kLink, "link %u connected: %s",
                     id, peer.text.c_str());
  auto link = std::make_unique<DeviceLink>(
      DeviceLink::shared_t{loop_, options_, destinations_, rules_, sockets_,
                           turns_},
      std::move(fd), peer, id, [this] { OnLinkChanged(); });
  DeviceLink& added = *link;
  links_.emplace(id, std::move(link));
  reporter_.OnConnected(added);
  Ask(added, [](DeviceLink& one) { one.Start(); });
  StartTicking();
}

Companion::Links::iterator Companion::EraseLink(Links::iterator entry) {
  reporter_.OnOver(*entry->second);
  const auto next = links_.erase(entry);
  reporter_.OnRemoved();
  return next;
}

std::vector<const DeviceLink*> Companion::GetLinks() const {
  std::vector<const DeviceLink*> links;
  for (const auto& entry : links_) links.push_back(entry.second.get());
  return links;
}

size_t Companion::CountUp() const {
  return static_cast<size_t>(
      std::count_if(links_.begin(), links_.end(),
                    [](const auto& entry) { return entry.second->IsUp(); }));
}

bool Companion::MakeRoom() {
  if (CountUp() < sockets_.GetMaxLinks()) return true;
  const SteadyTime now = GetSteadyTime();
  for (const auto& entry : links_) {
    if (!entry.second->IsSilent(now)) continue;
    Ask(*entry.second, [](DeviceLink& link) {
      link.CloseAtOnce("silent, and there is no room for another link");
    });
    return true;
  }
  return false;
}

void Companion::BoundRests() {
  std::vector<Links::iterator> rests;
  size_t sockets = 0;
  for (auto entry = links_.begin(); entry != links_.end(); ++entry) {
    if (entry->second->IsUp()) continue;
    rests.push_back(entry);
    sockets += entry->second->GetSocketCount();
  }
  for (size_t i = 0; i < rests.size(); ++i) {
    if (rests.size() - i <= sockets_.GetMaxLinks() &&
        sockets <= sockets_.GetSharedCount()) {
      return;
    }
    sockets -= rests[i]->second->GetSocketCount();
    EraseLink(rests[i]);
  }
}

// Later, since a link that tells of its end is in the middle of it.
void Companion::OnLinkChanged() {
  asio::post(loop_, [this] { RemoveLinksThatAreOver(); });
}

void Companion::RemoveLinksThatAreOver() {
  for (auto entry = links_.begin(); entry != links_.end();) {
    if (!entry->second->IsOver()) {
      ++entry;
      continue;
    }
    has_failed_ = options_.fd && entry->second->HasFailed();
    entry = EraseLink(entry);
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
      return ReadAgain();
    case SIGUSR1:
      return LogState();
    default:
      return Stop();
  }
}

void Companion::ReadAgain() {
  if (!rules_.Read()) {
    ProgramLog().Write(LogLevel::kError, LogKind::kState,
                       "the rules stay as they were");
  }
  AskAll([](DeviceLink& link) { link.ReportNetwork(); });
}

void Companion::LogState() {
  ProgramLog().Write(LogLevel::kInfo, LogKind::kState,
                     "state: %zu links up of at most %zu", CountUp(),
                     sockets_.GetMaxLinks());
  AskAll([](DeviceLink& link) { link.LogState(); });
}

void Companion::Stop() {
  if (is_stopping_) return;
  is_stopping_ = true;
  service_manager_.Notify("STOPPING=1");
  reporter_.OnStopping();
  listeners_.clear();
  bluetooth_.reset();
  AskAll([](DeviceLink& link) { link.Close("companion is shutting down"); });
  stop_timer_.WaitFor(kStopTime);
  OnLinkChanged();
}

// Only while there are links: nothing else has deadlines.
void Companion::StartTicking() {
  if (is_ticking_) return;
  is_ticking_ = true;
  ticker_.WaitFor(std::chrono::seconds(1));
}

void Companion::OnTick() {
  KeepMemoryReserve();
  TickNext(GetSteadyTime(), 0);
}

void Companion::TickNext(SteadyTime now, uint32_t last_id) {
  const auto next = links_.upper_bound(last_id);
  if (next != links_.end()) {
    const uint32_t id = next->first;
    Ask(*next->second, [now](DeviceLink& link) { link.OnTick(now); });
    asio::post(loop_, [this, now, id] { TickNext(now, id); });
    return;
  }
  is_ticking_ = false;
  RemoveLinksThatAreOver();
  reporter_.OnTick();
  if (!links_.empty()) StartTicking();
}

void Companion::StartWatchdog() {
  const auto time = ServiceManager::GetWatchdogTime();
  if (time) watchdog_.WaitFor(*time / 2);
}

void Companion::OnWatchdog() {
  service_manager_.Notify("WATCHDOG=1");
  StartWatchdog();
}

}  // namespace vantrel
