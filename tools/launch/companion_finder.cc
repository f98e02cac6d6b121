#include "tools/launch/companion_finder.h"

#include <errno.h>
#include <string.h>

#include <algorithm>
#include <chrono>
#include <utility>

#include "bluez/bluez_objects.h"
#include "bluez/bus_connection.h"
#include "bluez/service_search.h"
#include "common/link_address.h"
#include "support/peer_socket.h"
#include "support/system_failure.h"

namespace vantrel {
namespace {

using Machine = bluez_objects_t::machine_t;

// A machine that is out of reach is given up by the controller after 5 s.
constexpr std::chrono::seconds kSearchTimeout{8};

std::string Describe(const Machine& machine) {
  return machine.name + " (" + ToText(machine.address) + ")";
}

bluez_objects_t AskBluez(EventLoop* loop, SteadyTime end) {
  bluez_objects_t found;
  std::string fault;
  bool is_over = false;
  const auto finish = [&](const std::string& why) {
    fault = why;
    is_over = true;
  };
  BusConnection bus(loop->GetContext(), [&](int error) {
    finish(std::string("D-Bus has gone: ") + strerror(error));
  });
  if (const int error = bus.Open()) {
    throw std::runtime_error(std::string("no D-Bus, which knows the paired "
                                         "machines; name a LINK: ") +
                             strerror(error));
  }
  AskForBluezObjects(
      &bus, [&](const bluez_objects_t& objects, const std::string& why) {
        found = objects;
        finish(why);
      });
  loop->WaitUntil([&] { return is_over; }, end);
  if (!fault.empty()) throw std::runtime_error(fault);
  return found;
}

// 0 when the machine does not offer the service.
int FindChannel(const std::optional<BluetoothAddress>& adapter,
                const BluetoothAddress& machine, EventLoop* loop,
                SteadyTime end) {
  ServiceSearch search(adapter, machine);
  while (search.GetWait() != ServiceSearch::Wait::kNothing) {
    const auto readiness = search.GetWait() == ServiceSearch::Wait::kWritable
                               ? EventLoop::Readiness::kWritable
                               : EventLoop::Readiness::kReadable;
    loop->AwaitReady(search.GetFd(), readiness, end);
    search.Advance();
  }
  if (search.GetError() != 0) {
    throw std::runtime_error(DescribeBluetoothFailure(search.GetError()));
  }
  return search.GetChannel();
}

// Looks at the paired machines one after the other.
class PairedMachines {
 public:
  PairedMachines(const bluez_objects_t& objects, EventLoop* loop,
                 SteadyTime end)
      : objects_(objects), loop_(loop), end_(end) {
    for (const Machine& machine : objects.machines) {
      if (MayServe(machine)) machines_.push_back(machine);
    }
    // Those of which BlueZ has learned that they offer it.
    others_ = std::stable_partition(
        machines_.begin(), machines_.end(),
        [](const Machine& machine) { return machine.offers_service; });
  }

  found_companion_t Find() {
    const std::string fault = FindFaultOfAdapters(objects_);
    if (!fault.empty()) throw std::runtime_error(fault);
    if (machines_.empty()) {
      throw std::runtime_error(
          "no machine is paired that could be the companion: bluetoothctl pair "
          "BDADDR, or name a LINK");
    }
    if (others_ - machines_.begin() > 1) Choose(machines_.begin(), others_);
    Ask(machines_.begin(), others_);
    // Also when that one is away: it may have been the companion once.
    if (found_.empty()) Ask(others_, machines_.end());
    if (found_.size() > 1) Choose(offering_.begin(), offering_.end());
    if (!found_.empty()) return found_.front();
    throw std::runtime_error(
        "no paired machine offers the network now, start vantrel-companion "
        "there: " +
        reasons_);
  }

 private:
  using Iterator = std::vector<Machine>::iterator;

  bool MayServe(const Machine& machine) const {
    const auto* const adapter = FindAdapter(objects_, machine.adapter);
    return machine.is_paired && !machine.is_blocked &&
           (machine.offers_service || !machine.is_accessory) &&
           adapter != nullptr && adapter->is_on;
  }

  void Ask(Iterator begin, Iterator end) {
    for (auto machine = begin; machine != end; ++machine) {
      try {
        AskOne(*machine);
      } catch (const Interrupted&) {
        throw;
      } catch (const std::runtime_error& e) {
        AddReason(*machine, e.what());
      }
    }
  }

  void AskOne(const Machine& machine) {
    found_companion_t found;
    found.address = machine.address;
    found.adapter = FindAdapter(objects_, machine.adapter)->address;
    found.name = machine.name;
    found.channel =
        FindChannel(found.adapter, found.address, loop_,
                    std::min(end_, GetSteadyTime() + kSearchTimeout));
    if (found.channel == 0) return AddReason(machine, "does not offer it");
    found_.push_back(found);
    offering_.push_back(machine);
  }

  void AddReason(const Machine& machine, const std::string& reason) {
    reasons_ +=
        (reasons_.empty() ? "" : "; ") + Describe(machine) + ": " + reason;
  }

  [[noreturn]] static void Choose(Iterator begin, Iterator end) {
    std::vector<std::string> choices;
    for (auto machine = begin; machine != end; ++machine) {
      choices.push_back(std::string(kBluetoothLink) + ":" +
                        ToText(machine->address) + "  " + machine->name);
    }
    throw ChoiceNeeded(std::move(choices));
  }

  const bluez_objects_t& objects_;
  EventLoop* const loop_;
  const SteadyTime end_;
  std::vector<Machine> machines_;
  Iterator others_;
  std::vector<found_companion_t> found_;
  std::vector<Machine> offering_;  // the same machines
  std::string reasons_;            // why the others are no companions
};

}  // namespace

found_companion_t FindCompanion(const std::optional<BluetoothAddress>& address,
                                EventLoop* loop, SteadyTime end) {
  if (!address) {
    const bluez_objects_t objects = AskBluez(loop, end);
    return PairedMachines(objects, loop, end).Find();
  }
  found_companion_t found;
  found.address = *address;
  found.channel = FindChannel(found.adapter, found.address, loop, end);
  if (found.channel == 0) {
    throw std::runtime_error(
        "that machine does not offer the network; start vantrel-companion "
        "there");
  }
  return found;
}

}  // namespace vantrel
