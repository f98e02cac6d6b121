#include "bluez/service_search.h"

#include <errno.h>
#include <stddef.h>
#include <stdint.h>
#include <sys/socket.h>

#include <algorithm>

#include "bluez/service.h"

namespace vantrel {
namespace {

class ListDeleter {
 public:
  void operator()(sdp_list_t* list) const { sdp_list_free(list, nullptr); }
};
using List = std::unique_ptr<sdp_list_t, ListDeleter>;

// The bytes of kServiceUuid.
uuid_t MakeServiceUuid() {
  uint8_t bytes[16] = {};
  size_t count = 0;
  for (const char c : std::string(kServiceUuid)) {
    if (c == '-') continue;
    const int digit = c <= '9' ? c - '0' : c - 'a' + 10;
    bytes[count / 2] = static_cast<uint8_t>(bytes[count / 2] << 4 | digit);
    ++count;
  }
  uuid_t uuid;
  sdp_uuid128_create(&uuid, bytes);
  return uuid;
}

// 0 when |record| has no RFCOMM channel.
int GetRfcommChannel(const sdp_record_t* record) {
  sdp_list_t* protocols = nullptr;
  if (sdp_get_access_protos(record, &protocols) != 0) return 0;
  const int channel = sdp_get_proto_port(protocols, RFCOMM_UUID);
  sdp_list_foreach(
      protocols,
      [](void* list, void* /*data*/) {
        sdp_list_free(static_cast<sdp_list_t*>(list), nullptr);
      },
      nullptr);
  sdp_list_free(protocols, nullptr);
  return std::max(channel, 0);
}

// The first channel in a sequence of records.
int FindRfcommChannel(const uint8_t* records, int size) {
  uint8_t type = 0;
  int length = 0;
  int at = sdp_extract_seqtype(records, size, &type, &length);
  if (at <= 0) return 0;
  while (at < size) {
    int record_size = 0;
    const std::unique_ptr<sdp_record_t, decltype(&sdp_record_free)> record(
        sdp_extract_pdu(records + at, size - at, &record_size),
        sdp_record_free);
    if (record == nullptr || record_size <= 0) return 0;
    if (const int channel = GetRfcommChannel(record.get())) return channel;
    at += record_size;
  }
  return 0;
}

}  // namespace

bdaddr_t ToKernel(const BluetoothAddress& address) {
  bdaddr_t out;
  std::reverse_copy(address.begin(), address.end(), out.b);
  return out;
}

ServiceSearch::ServiceSearch(const std::optional<BluetoothAddress>& source,
                             const BluetoothAddress& machine) {
  const bdaddr_t from = ToKernel(source.value_or(BluetoothAddress{}));
  const bdaddr_t to = ToKernel(machine);
  session_.reset(sdp_connect(&from, &to, SDP_NON_BLOCKING));
  if (session_ == nullptr) End(errno);
}

int ServiceSearch::GetFd() const { return sdp_get_socket(session_.get()); }

void ServiceSearch::Advance() {
  if (wait_ == Wait::kWritable) return Ask();
  // Its answer may come in several parts. At the end OnAnswer() is called.
  if (sdp_process(session_.get()) < 0 && wait_ != Wait::kNothing) End(EPROTO);
}

void ServiceSearch::Ask() {
  int error = 0;
  socklen_t length = sizeof(error);
  getsockopt(GetFd(), SOL_SOCKET, SO_ERROR, &error, &length);
  if (error != 0) return End(error);
  uuid_t uuid = MakeServiceUuid();
  uint16_t attribute = SDP_ATTR_PROTO_DESC_LIST;
  const List uuids(sdp_list_append(nullptr, &uuid));
  const List attributes(sdp_list_append(nullptr, &attribute));
  sdp_set_notify(session_.get(), OnAnswer, this);
  if (sdp_service_search_attr_async(session_.get(), uuids.get(),
                                    SDP_ATTR_REQ_INDIVIDUAL,
                                    attributes.get()) != 0) {
    return End(EPROTO);
  }
  wait_ = Wait::kReadable;
}

void ServiceSearch::OnAnswer(uint8_t type, uint16_t status, uint8_t* records,
                             size_t size, void* search) {
  auto* const self = static_cast<ServiceSearch*>(search);
  if (status != 0 || type != SDP_SVC_SEARCH_ATTR_RSP) {
    return self->End(EPROTO);
  }
  self->channel_ = FindRfcommChannel(records, static_cast<int>(size));
  self->End(0);
}

void ServiceSearch::End(int error) {
  error_ = error;
  wait_ = Wait::kNothing;
}

}  // namespace vantrel
