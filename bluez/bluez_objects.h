#pragma once

#include <stdint.h>

#include <functional>
#include <string>
#include <vector>

#include "bluez/bus_connection.h"
#include "common/bluetooth_address.h"

namespace vantrel {

// BlueZ on D-Bus: the names that both programs need.
constexpr char kBluez[] = "org.bluez";
constexpr char kBluezAdapter[] = "org.bluez.Adapter1";
constexpr char kBluezMachine[] = "org.bluez.Device1";
constexpr char kBusError[] = "org.freedesktop.DBus.Error.";

// What BlueZ knows, at one moment.
struct bluez_objects_t {
  struct adapter_t {
    std::string path;
    BluetoothAddress address = {};
    bool is_on = false;
  };
  struct machine_t {
    std::string adapter;  // the path of the one that it is known to
    BluetoothAddress address = {};
    std::string name;  // as its owner or this machine's calls it
    bool is_paired = false;
    bool is_blocked = false;
    // Of a class that is never a computer: for sound, a keyboard and the like.
    bool is_accessory = false;
    // As BlueZ has learned it, most often at the pairing.
    bool offers_service = false;
  };
  std::vector<adapter_t> adapters;
  std::vector<machine_t> machines;
};

// Null when there is none with this path.
const bluez_objects_t::adapter_t* FindAdapter(const bluez_objects_t& objects,
                                              const std::string& path);

// Why no link can come or go, and what to do; empty when an adapter is on.
std::string FindFaultOfAdapters(const bluez_objects_t& objects);

// Asks for them. |on_objects| gets them, or why there are none: |fault| is then
// not empty.
void AskForBluezObjects(BusConnection* bus,
                        std::function<void(const bluez_objects_t& objects,
                                           const std::string& fault)>
                            on_objects);

// What to do when nobody has BlueZ' name on the bus.
constexpr char kNoBluez[] =
    "BlueZ does not run: apt install bluez, or systemctl start bluetooth";

}  // namespace vantrel
