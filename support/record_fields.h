// Names in the JSON records of launcher and companion. Scripts read them, so
// none changes lightly.
#pragma once

namespace vantrel {
namespace record_fields {

constexpr char kRecord[] = "record";  // what kind it is

// Of a state.
constexpr char kState[] = "state";
constexpr char kTime[] = "time_ms";
constexpr char kLink[] = "link";
constexpr char kProtocol[] = "protocol";
constexpr char kUptime[] = "uptime_ms";
constexpr char kStarts[] = "starts";
constexpr char kLinkBytes[] = "link_bytes";

// Of traffic, both kinds from the device's point of view.
constexpr char kUids[] = "uids";
constexpr char kUid[] = "uid";
constexpr char kName[] = "name";
constexpr char kRxBytes[] = "rx_bytes";
constexpr char kTxBytes[] = "tx_bytes";

// Of the companion's network.
constexpr char kNetwork[] = "network";
constexpr char kNetworkId[] = "id";
constexpr char kMetered[] = "metered";

// Of a companion's devices, and of what they have open.
constexpr char kDevices[] = "devices";
constexpr char kStreams[] = "streams";
constexpr char kId[] = "id";
constexpr char kRemote[] = "remote";
constexpr char kAge[] = "age_ms";
constexpr char kPace[] = "bytes_per_s";
constexpr char kWaiting[] = "waiting_bytes";
constexpr char kOpened[] = "streams_opened";
constexpr char kOpen[] = "streams_open";
constexpr char kOldest[] = "oldest_stream_ms";
constexpr char kDenied[] = "streams_denied";
constexpr char kRxDatagrams[] = "rx_datagrams";
constexpr char kTxDatagrams[] = "tx_datagrams";
constexpr char kDropped[] = "dropped_datagrams";
constexpr char kLeftOut[] = "left_out";

}  // namespace record_fields
}  // namespace vantrel
