#pragma once

#include <systemd/sd-bus.h>

#include <asio/io_context.hpp>
#include <exception>
#include <functional>
#include <list>
#include <memory>
#include <string>

#include "support/descriptor.h"
#include "support/timer.h"

namespace vantrel {

class BusMessageDeleter {
 public:
  void operator()(sd_bus_message* message) const {
    sd_bus_message_unref(message);
  }
};
using BusMessage = std::unique_ptr<sd_bus_message, BusMessageDeleter>;

// A connection to D-Bus' system bus, in the program's loop. The library reads
// and writes; nothing here waits. What it calls may throw, although the library
// is written in C: the exception comes out of the loop.
class BusConnection {
 public:
  using Handler = std::function<void(sd_bus_message* message)>;
  // |error| is an errno. To be destroyed by its owner, but not in here.
  using OnLost = std::function<void(int error)>;

  // |loop| outlives it. Once it is destroyed no handler is called any more.
  BusConnection(asio::io_context& loop, OnLost on_lost);
  BusConnection(const BusConnection&) = delete;
  BusConnection& operator=(const BusConnection&) = delete;

  // Begins to connect: 0, or the errno of a bus that is not there. To be called
  // once, before anything else.
  [[nodiscard]] int Open();

  // The rest throws std::system_error, also when the connection is lost.

  // A call that starts no service to get an answer; arguments may be appended.
  BusMessage NewCall(const char* destination, const char* path,
                     const char* interface, const char* member);
  // |on_reply| gets the answer, which may be an error: also when nobody has
  // answered in 10 s, or the connection is lost.
  void Call(BusMessage call, Handler on_reply);
  // |on_signal| gets every signal that fits |rule|.
  void Watch(const std::string& rule, Handler on_signal);
  // |on_call| gets every call for the object |path|, and has to answer.
  void Serve(const std::string& path, Handler on_call);

  // After a handler of the loop has failed: it may have been ours.
  void GoOn();

 private:
  class BusDeleter {
   public:
    void operator()(sd_bus* bus) const { sd_bus_close_unref(bus); }
  };
  class SlotDeleter {
   public:
    void operator()(sd_bus_slot* slot) const { sd_bus_slot_unref(slot); }
  };
  // What the library has to call, as long as it may.
  struct subscription_t {
    BusConnection* connection;
    Handler handler;
    std::unique_ptr<sd_bus_slot, SlotDeleter> slot;
  };
  subscription_t* Add(std::list<subscription_t>* list, Handler handler);
  // The library calls these.
  static int OnMessage(sd_bus_message* message, void* subscription,
                       sd_bus_error* error);
  static int OnReply(sd_bus_message* message, void* subscription,
                     sd_bus_error* error);
  // Nothing may be thrown through the library: kept until it has returned.
  int Handle(const Handler& handler, sd_bus_message* message);
  void Process();
  // Waits for what the library waits for.
  void Wait();
  void Lose(int error);

  asio::io_context& loop_;
  const OnLost on_lost_;
  std::exception_ptr exception_;
  bool is_lost_ = false;
  std::unique_ptr<sd_bus, BusDeleter> bus_;
  std::unique_ptr<Descriptor> socket_;  // a second one of the library's
  Timer timer_;
  // The slots go before the bus does.
  std::list<subscription_t> calls_;
  std::list<subscription_t> subscriptions_;
};

// In words: why |reply| is an error. Empty when it is none.
std::string GetBusError(sd_bus_message* reply);

}  // namespace vantrel
