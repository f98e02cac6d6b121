#include "bluez/bluez_objects.h"

#include <algorithm>
#include <map>
#include <optional>
#include <utility>

#include "bluez/service.h"

namespace vantrel {
namespace {

// Those of an object's properties that have one of these types.
struct properties_t {
  std::map<std::string, std::string> texts;  // and object paths
  std::map<std::string, bool> flags;
  std::map<std::string, uint32_t> numbers;
  std::map<std::string, std::vector<std::string>> lists;
};

// Of a class of device (Bluetooth Assigned Numbers): the major class.
constexpr uint32_t GetMajorClass(uint32_t device_class) {
  return device_class >> 8 & 0x1F;
}
constexpr uint32_t kMajorAudio = 4;
constexpr uint32_t kMajorPeripheral = 5;

std::vector<std::string> ReadList(sd_bus_message* m) {
  std::vector<std::string> list;
  const char* text = nullptr;
  if (sd_bus_message_enter_container(m, 'a', "s") <= 0) return list;
  while (sd_bus_message_read_basic(m, 's', &text) > 0) list.emplace_back(text);
  sd_bus_message_exit_container(m);
  return list;
}

void ReadVariant(sd_bus_message* m, const std::string& name,
                 const std::string& type, properties_t* out) {
  if (type == "s" || type == "o") {
    const char* text = nullptr;
    if (sd_bus_message_read_basic(m, type[0], &text) > 0) {
      out->texts[name] = text;
    }
  } else if (type == "b") {
    int flag = 0;
    if (sd_bus_message_read_basic(m, 'b', &flag) > 0) {
      out->flags[name] = flag != 0;
    }
  } else if (type == "u") {
    sd_bus_message_read_basic(m, 'u', &out->numbers[name]);
  } else if (type == "as") {
    out->lists[name] = ReadList(m);
  } else {
    sd_bus_message_skip(m, type.c_str());
  }
}

// Each element of the array at which |m| stands: enters it, reads its key of
// the type |key_type|, calls |read| with that, leaves it.
void ForEachEntry(sd_bus_message* m, char key_type, const char* value_type,
                  const std::function<void(const char* key)>& read) {
  const std::string entry = std::string(1, key_type) + value_type;
  if (sd_bus_message_enter_container(m, 'a', ("{" + entry + "}").c_str()) <=
      0) {
    return;
  }
  while (sd_bus_message_enter_container(m, 'e', entry.c_str()) > 0) {
    const char* key = nullptr;
    if (sd_bus_message_read_basic(m, key_type, &key) > 0) read(key);
    sd_bus_message_exit_container(m);
  }
  sd_bus_message_exit_container(m);
}

properties_t ReadProperties(sd_bus_message* m) {
  properties_t properties;
  ForEachEntry(m, 's', "v", [&](const std::string& name) {
    const char* type = nullptr;
    if (sd_bus_message_peek_type(m, nullptr, &type) <= 0) return;
    const std::string contents = type;
    if (sd_bus_message_enter_container(m, 'v', contents.c_str()) <= 0) return;
    ReadVariant(m, name, contents, &properties);
    sd_bus_message_exit_container(m);
  });
  return properties;
}

void AddAdapter(const std::string& path, properties_t properties,
                bluez_objects_t* out) {
  const auto address = ParseBluetoothAddress(properties.texts["Address"]);
  if (!address) return;
  out->adapters.push_back({path, *address, properties.flags["Powered"]});
}

void AddMachine(properties_t properties, bluez_objects_t* out) {
  const auto address = ParseBluetoothAddress(properties.texts["Address"]);
  if (!address) return;
  bluez_objects_t::machine_t machine;
  machine.adapter = properties.texts["Adapter"];
  machine.address = *address;
  machine.name = properties.texts["Alias"];
  machine.is_paired = properties.flags["Paired"];
  machine.is_blocked = properties.flags["Blocked"];
  const uint32_t major = GetMajorClass(properties.numbers["Class"]);
  machine.is_accessory = major == kMajorAudio || major == kMajorPeripheral;
  const std::vector<std::string>& uuids = properties.lists["UUIDs"];
  machine.offers_service =
      std::find(uuids.begin(), uuids.end(), kServiceUuid) != uuids.end();
  out->machines.push_back(std::move(machine));
}

bluez_objects_t ReadObjects(sd_bus_message* reply) {
  bluez_objects_t objects;
  ForEachEntry(reply, 'o', "a{sa{sv}}", [&](const std::string& path) {
    ForEachEntry(reply, 's', "a{sv}", [&](const std::string& interface) {
      properties_t properties = ReadProperties(reply);
      if (interface == kBluezAdapter) {
        AddAdapter(path, std::move(properties), &objects);
      } else if (interface == kBluezMachine) {
        AddMachine(std::move(properties), &objects);
      }
    });
  });
  return objects;
}

}  // namespace

const bluez_objects_t::adapter_t* FindAdapter(const bluez_objects_t& objects,
                                              const std::string& path) {
  for (const auto& adapter : objects.adapters) {
    if (adapter.path == path) return &adapter;
  }
  return nullptr;
}

std::string FindFaultOfAdapters(const bluez_objects_t& objects) {
  if (objects.adapters.empty()) return "this machine has no Bluetooth adapter";
  for (const auto& adapter : objects.adapters) {
    if (adapter.is_on) return "";
  }
  return "the Bluetooth adapter is off: bluetoothctl power on";
}

void AskForBluezObjects(BusConnection* bus,
                        std::function<void(const bluez_objects_t& objects,
                                           const std::string& fault)>
                            on_objects) {
  bus->Call(
      bus->NewCall(kBluez, "/", "org.freedesktop.DBus.ObjectManager",
                   "GetManagedObjects"),
      [on_objects = std::move(on_objects)](sd_bus_message* reply) {
        if (sd_bus_message_is_method_error(reply, nullptr) == 0) {
          return on_objects(ReadObjects(reply), "");
        }
        const bool is_absent =
            sd_bus_message_is_method_error(
                reply, (std::string(kBusError) + "ServiceUnknown").c_str()) >
                0 ||
            sd_bus_message_is_method_error(
                reply, (std::string(kBusError) + "NameHasNoOwner").c_str()) > 0;
        on_objects({}, is_absent
                           ? kNoBluez
                           : "BlueZ does not answer: " + GetBusError(reply));
      });
}

}  // namespace vantrel
