#include "bluez/bus_connection.h"

#include <errno.h>
#include <poll.h>
#include <stdint.h>

#include <chrono>
#include <system_error>
#include <utility>

#include "common/unique_fd.h"
#include "support/steady_time.h"

namespace vantrel {
namespace {

constexpr uint64_t kReplyTimeUs = 10'000'000;

// Of the library's functions, which return a negative errno.
int Check(int result) {
  if (result < 0) throw std::system_error(-result, std::generic_category());
  return result;
}

}  // namespace

BusConnection::BusConnection(asio::io_context& loop, OnLost on_lost)
    : loop_(loop),
      on_lost_(std::move(on_lost)),
      timer_(loop, [this] { Process(); }) {}

int BusConnection::Open() {
  sd_bus* bus = nullptr;
  const int result = sd_bus_open_system(&bus);
  if (result < 0) return -result;
  bus_.reset(bus);
  UniqueFd fd = Duplicate(Check(sd_bus_get_fd(bus)));
  if (fd.Get() == -1) return errno;
  socket_ = std::make_unique<Descriptor>(
      loop_, std::move(fd), [this] { Process(); }, [this] { Process(); });
  Wait();
  return 0;
}

BusMessage BusConnection::NewCall(const char* destination, const char* path,
                                  const char* interface, const char* member) {
  sd_bus_message* call = nullptr;
  Check(sd_bus_message_new_method_call(bus_.get(), &call, destination, path,
                                       interface, member));
  BusMessage owned(call);
  // BlueZ runs where there is Bluetooth. To start it elsewhere takes time and
  // fails.
  Check(sd_bus_message_set_auto_start(call, 0));
  return owned;
}

BusConnection::subscription_t* BusConnection::Add(
    std::list<subscription_t>* list, Handler handler) {
  list->push_back({this, std::move(handler), {}});
  return &list->back();
}

void BusConnection::Call(BusMessage call, Handler on_reply) {
  subscription_t* const added = Add(&calls_, std::move(on_reply));
  sd_bus_slot* slot = nullptr;
  const int result = sd_bus_call_async(bus_.get(), &slot, call.get(), OnReply,
                                       added, kReplyTimeUs);
  if (result < 0) calls_.pop_back();
  Check(result);
  added->slot.reset(slot);
  Wait();
}

void BusConnection::Watch(const std::string& rule, Handler on_signal) {
  subscription_t* const added = Add(&subscriptions_, std::move(on_signal));
  sd_bus_slot* slot = nullptr;
  Check(sd_bus_add_match_async(bus_.get(), &slot, rule.c_str(), OnMessage,
                               nullptr, added));
  added->slot.reset(slot);
  Wait();
}

void BusConnection::Serve(const std::string& path, Handler on_call) {
  subscription_t* const added = Add(&subscriptions_, std::move(on_call));
  sd_bus_slot* slot = nullptr;
  Check(sd_bus_add_object(bus_.get(), &slot, path.c_str(), OnMessage, added));
  added->slot.reset(slot);
}

int BusConnection::OnMessage(sd_bus_message* message, void* subscription,
                             sd_bus_error* /*error*/) {
  const auto* const target = static_cast<subscription_t*>(subscription);
  return target->connection->Handle(target->handler, message);
}

int BusConnection::OnReply(sd_bus_message* message, void* subscription,
                           sd_bus_error* /*error*/) {
  auto* const target = static_cast<subscription_t*>(subscription);
  BusConnection* const connection = target->connection;
  // The library holds its own reference to the slot while it calls.
  const Handler handler = std::move(target->handler);
  connection->calls_.remove_if(
      [target](const subscription_t& call) { return &call == target; });
  return connection->Handle(handler, message);
}

int BusConnection::Handle(const Handler& handler, sd_bus_message* message) {
  try {
    handler(message);
  } catch (...) {
    if (!exception_) exception_ = std::current_exception();
  }
  return 1;  // nobody else need look at it
}

void BusConnection::GoOn() {
  if (!is_lost_) Wait();
}

void BusConnection::Process() {
  if (is_lost_) return;
  int result = 1;
  while (result > 0 && !exception_) {
    result = sd_bus_process(bus_.get(), nullptr);
  }
  if (exception_) std::rethrow_exception(std::exchange(exception_, nullptr));
  if (result < 0) return Lose(-result);
  Wait();
}

void BusConnection::Wait() {
  const int events = sd_bus_get_events(bus_.get());
  if (events < 0) return;  // its end is noticed by who processes
  if ((events & POLLIN) != 0) socket_->WaitReadable();
  if ((events & POLLOUT) != 0) socket_->WaitWritable();
  // In the time of CLOCK_MONOTONIC; also when there is work that waits for
  // nothing.
  uint64_t time_us = UINT64_MAX;
  if (sd_bus_get_timeout(bus_.get(), &time_us) > 0) {
    timer_.WaitUntil(SteadyTime(std::chrono::microseconds(time_us)));
  }
}

void BusConnection::Lose(int error) {
  is_lost_ = true;
  timer_.Cancel();
  on_lost_(error);
}

std::string GetBusError(sd_bus_message* reply) {
  const sd_bus_error* const error = sd_bus_message_get_error(reply);
  if (error == nullptr) return "";
  const bool has_text = error->message != nullptr && *error->message != '\0';
  return has_text ? error->message : error->name;
}

}  // namespace vantrel
