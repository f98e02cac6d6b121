// Names in the launcher's JSON records. Scripts read them, so none changes
// lightly.
#pragma once

namespace vantrel {
namespace record_fields {

constexpr char kRecord[] = "record";  // what kind it is

// Of a launcher's state.
constexpr char kState[] = "state";
constexpr char kLink[] = "link";
constexpr char kProtocol[] = "protocol";
constexpr char kUptime[] = "uptime_ms";
constexpr char kStarts[] = "starts";

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

}  // namespace record_fields
}  // namespace vantrel
