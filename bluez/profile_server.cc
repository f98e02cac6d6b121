#include "bluez/profile_server.h"

#include <errno.h>
#include <string.h>
#include <sys/socket.h>

#include <algorithm>
#include <asio/post.hpp>
#include <chrono>
#include <optional>
#include <system_error>
#include <utility>

#include "bluez/bluez_objects.h"
#include "bluez/service.h"
#include "support/peer_socket.h"

namespace vantrel {
namespace {

constexpr char kBus[] = "org.freedesktop.DBus";
constexpr char kBusPath[] = "/org/freedesktop/DBus";
constexpr char kProfile[] = "org.bluez.Profile1";
constexpr char kProfilePath[] = "/vantrel/companion";
// Until D-Bus or BlueZ is asked again after it has refused.
constexpr std::chrono::seconds kRetryTime{5};

std::string MakeSignalRule(const std::string& sender, const char* interface,
                           const char* member, const char* first_argument) {
  return "type='signal',sender='" + sender + "',interface='" + interface +
         "',member='" + member + "',arg0='" + first_argument + "'";
}

void Append(sd_bus_message* call, const char* name, const char* type,
            const char* text) {
  sd_bus_message_append(call, "{sv}", name, type, text);
}
void Append(sd_bus_message* call, const char* name, bool flag) {
  sd_bus_message_append(call, "{sv}", name, "b", static_cast<int>(flag));
}

// What org.bluez.ProfileManager1 wants to know (profile-api.txt).
void AppendOptions(sd_bus_message* call, bool is_encrypted) {
  sd_bus_message_open_container(call, 'a', "{sv}");
  Append(call, "Name", "s", kServiceName);
  Append(call, "Role", "s", "server");
  // RFCOMM, on a channel that BlueZ chooses.
  sd_bus_message_append(call, "{sv}", "Channel", "q", 0);
  Append(call, "RequireAuthentication", is_encrypted);
  // Who is paired may connect. To be asked about each link takes a person at a
  // screen.
  Append(call, "RequireAuthorization", false);
  sd_bus_message_close_container(call);
}

// BlueZ names a machine's object after its address: .../dev_01_23_45_67_89_AB.
std::string DescribeMachine(const std::string& path) {
  std::string address = path.substr(path.rfind('/') + 1);
  if (address.rfind("dev_", 0) == 0) address.erase(0, 4);
  std::replace(address.begin(), address.end(), '_', ':');
  const auto parsed = ParseBluetoothAddress(address);
  return "bluetooth:" + (parsed ? ToText(*parsed) : path);
}

bool IsConnectedStream(int fd) {
  int type = 0;
  socklen_t length = sizeof(type);
  sockaddr_storage peer;
  socklen_t peer_length = sizeof(peer);
  return getsockopt(fd, SOL_SOCKET, SO_TYPE, &type, &length) == 0 &&
         type == SOCK_STREAM &&
         getpeername(fd, reinterpret_cast<sockaddr*>(&peer), &peer_length) == 0;
}

void Refuse(sd_bus_message* call, const char* why) {
  sd_bus_reply_method_errorf(call, "org.bluez.Error.Rejected", "%s", why);
}

}  // namespace

ProfileServer::ProfileServer(asio::io_context& loop, bool is_encrypted,
                             callbacks_t callbacks)
    : loop_(loop),
      is_encrypted_(is_encrypted),
      callbacks_(std::move(callbacks)),
      retry_(loop, [this] { OnRetry(); }) {}

int ProfileServer::Start() { return Connect(); }

void ProfileServer::GoOn() {
  if (bus_ == nullptr) return Retry();
  bus_->GoOn();
}

int ProfileServer::Connect() {
  auto bus = std::make_unique<BusConnection>(
      loop_, [this](int error) { OnBusLost(error); });
  const int error = bus->Open();
  if (error != 0) return error;
  bus_ = std::move(bus);
  try {
    Ask();
  } catch (const std::system_error& e) {
    bus_.reset();
    return e.code().value();
  }
  return 0;
}

// The bus answers in order: who comes between the two is not missed.
void ProfileServer::Ask() {
  bus_->Serve(kProfilePath, [this](sd_bus_message* call) { OnCall(call); });
  bus_->Watch(
      MakeSignalRule(kBus, kBus, "NameOwnerChanged", kBluez),
      [this](sd_bus_message* signal) {
        const char* name = nullptr;
        const char* before = nullptr;
        const char* after = nullptr;
        if (sd_bus_message_read(signal, "sss", &name, &before, &after) < 0) {
          return;
        }
        OnOwner(after);
      });
  bus_->Watch(MakeSignalRule(kBluez, "org.freedesktop.DBus.Properties",
                             "PropertiesChanged", kBluezAdapter),
              [this](sd_bus_message* /*signal*/) { LookAtAdapters(); });
  BusMessage call = bus_->NewCall(kBus, kBusPath, kBus, "GetNameOwner");
  sd_bus_message_append(call.get(), "s", kBluez);
  bus_->Call(std::move(call), [this](sd_bus_message* reply) {
    const char* owner = "";
    if (sd_bus_message_is_method_error(reply, nullptr) == 0) {
      sd_bus_message_read(reply, "s", &owner);
    }
    if (*owner == '\0' || owner_ != owner) OnOwner(owner);
  });
}

void ProfileServer::OnBusLost(int error) {
  owner_.clear();
  is_registered_ = false;
  Say(std::string("D-Bus has gone: ") + strerror(error));
  // We are called from within it.
  asio::post(loop_, lifetime_.MakeHandler([this] {
    bus_.reset();
    Retry();
  }));
}

void ProfileServer::Retry() { retry_.WaitFor(kRetryTime); }

void ProfileServer::OnRetry() {
  if (bus_ == nullptr && Connect() != 0) return Retry();
  if (!owner_.empty() && !is_registered_) Register();
}

void ProfileServer::OnOwner(const std::string& owner) {
  owner_ = owner;
  is_registered_ = false;
  owner_.empty() ? Say(kNoBluez) : Register();
}

void ProfileServer::Register() {
  retry_.Cancel();
  BusMessage call = bus_->NewCall(
      kBluez, "/org/bluez", "org.bluez.ProfileManager1", "RegisterProfile");
  sd_bus_message_append(call.get(), "os", kProfilePath, kServiceUuid);
  AppendOptions(call.get(), is_encrypted_);
  bus_->Call(std::move(call), [this, owner = owner_](sd_bus_message* reply) {
    // Of a BlueZ that has gone since: the next one has been asked already.
    if (owner == owner_) OnRegistered(reply);
  });
}

void ProfileServer::OnRegistered(sd_bus_message* reply) {
  if (sd_bus_message_is_method_error(reply, nullptr) == 0) {
    is_registered_ = true;
    return LookAtAdapters();
  }
  Say("BlueZ refuses the service: " + GetBusError(reply) +
      "; does another companion offer it on this machine?");
  Retry();
}

void ProfileServer::LookAtAdapters() {
  if (!is_registered_) return;
  AskForBluezObjects(bus_.get(), [this](const bluez_objects_t& objects,
                                        const std::string& fault) {
    // BlueZ may have gone meanwhile, which was said then.
    if (is_registered_ && fault.empty()) Say(FindFaultOfAdapters(objects));
  });
}

void ProfileServer::Say(const std::string& text) {
  if (std::exchange(has_said_, true) && said_ == text) return;
  said_ = text;
  callbacks_.on_state(text);
}

// Other users of this machine's bus could hand over sockets, too.
void ProfileServer::OnCall(sd_bus_message* call) {
  const char* const sender = sd_bus_message_get_sender(call);
  if (owner_.empty() || sender == nullptr || owner_ != sender) {
    return Refuse(call, "only BlueZ may ask");
  }
  if (sd_bus_message_is_method_call(call, kProfile, "NewConnection") > 0) {
    return TakeConnection(call);
  }
  if (sd_bus_message_is_method_call(call, kProfile, "RequestDisconnection") >
      0) {
    return Disconnect(call);
  }
  if (sd_bus_message_is_method_call(call, kProfile, "Release") > 0) {
    is_registered_ = false;
    sd_bus_reply_method_return(call, "");
    // Most often BlueZ is about to end.
    return Retry();
  }
  sd_bus_reply_method_errorf(call, SD_BUS_ERROR_UNKNOWN_METHOD,
                             "no such method");
}

void ProfileServer::TakeConnection(sd_bus_message* call) {
  const char* path = nullptr;
  int fd = -1;  // the message's
  if (sd_bus_message_read(call, "oh", &path, &fd) < 0 ||
      !IsConnectedStream(fd)) {
    return Refuse(call, "no connected stream socket came with it");
  }
  UniqueFd link = Duplicate(fd);
  UniqueFd second = Duplicate(fd);
  if (link.Get() == -1 || second.Get() == -1) {
    return Refuse(call, strerror(errno));
  }
  sd_bus_reply_method_return(call, "");
  ForgetConnections();
  connections_.emplace(path, std::move(second));
  callbacks_.on_link(std::move(link), DescribeMachine(path));
}

void ProfileServer::Disconnect(sd_bus_message* call) {
  const char* path = nullptr;
  if (sd_bus_message_read(call, "o", &path) < 0) {
    return Refuse(call, "no machine is named");
  }
  const auto range = connections_.equal_range(path);
  for (auto entry = range.first; entry != range.second; ++entry) {
    shutdown(entry->second.Get(), SHUT_RDWR);
  }
  if (range.first != range.second) {
    callbacks_.on_disconnect(DescribeMachine(path));
  }
  connections_.erase(path);
  sd_bus_reply_method_return(call, "");
}

void ProfileServer::ForgetConnections() {
  for (auto next = connections_.begin(); next != connections_.end();) {
    const auto entry = next++;
    if (HasHungUp(entry->second.Get())) connections_.erase(entry);
  }
}

}  // namespace vantrel
