#include "tools/launch/status_text.h"

#include <string.h>
#include <sys/wait.h>

#include <nlohmann/json.hpp>

#include "control/status_records.h"
#include "support/record_fields.h"

namespace vantrel {
namespace {

using android::corvane::protos::UidTransferStats;
using json = nlohmann::ordered_json;  // the members as we name them
using namespace record_fields;

std::string UsageToText(const UidTransferStats& usage,
                        const PackageNames& names) {
  const std::string name = names.Find(usage.uid());
  return "uid " + std::to_string(usage.uid()) +
         (name.empty() ? "" : " (" + name + ")") + " received " +
         std::to_string(usage.rx_bytes()) + " bytes, sent " +
         std::to_string(usage.tx_bytes()) + " bytes";
}

std::string StatsToText(const status_record_t& record,
                        const PackageNames& names) {
  std::string text = "stats: ";
  const char* separator = "";
  for (const UidTransferStats& usage : record.stats.uid_transfer_stats()) {
    text += separator + UsageToText(usage, names);
    separator = "; ";
  }
  return *separator == '\0' ? text + "no traffic since the last report" : text;
}

json StatsToJson(const status_record_t& record, const PackageNames& names) {
  json uids = json::array();
  for (const UidTransferStats& usage : record.stats.uid_transfer_stats()) {
    json entry = {{kUid, usage.uid()},
                  {kRxBytes, usage.rx_bytes()},
                  {kTxBytes, usage.tx_bytes()}};
    const std::string name = names.Find(usage.uid());
    if (!name.empty()) entry[kName] = name;
    uids.push_back(std::move(entry));
  }
  return {{kRecord, "stats"}, {kUids, uids}};
}

json RecordToJsonObject(const status_record_t& record,
                        const PackageNames& names) {
  switch (record.kind) {
    case status_record_t::Kind::kStarted:
      return {{kRecord, "started"}};
    case status_record_t::Kind::kExitCode:
      return {{kRecord, "exit_code"},
              {"code", record.exit_code},
              {"meaning", DescribeExitCode(record.exit_code)}};
    case status_record_t::Kind::kNetworkState:
      return {{kRecord, kNetwork},
              {kNetworkId, record.network.network_id},
              {kMetered, record.network.is_metered}};
    case status_record_t::Kind::kTransferStats:
      return StatsToJson(record, names);
  }
  return {};
}

}  // namespace

const char* DescribeExitCode(int exit_code) {
  switch (exit_code) {
    case kConnectFailed:
      return "the link could not be set up";
    case kControlServerFailed:
      return "the control port could not listen";
    case kTcpServerFailed:
      return "the TCP server could not listen";
    case kUdpServerFailed:
      return "the UDP server could not listen";
    case kBadArgumentCount:
      return "wrong number of arguments";
    case kBadVersion:
      return "unknown protocol version";
    default:
      return "unknown reason";
  }
}

std::string DescribeWaitStatus(int wait_status) {
  if (!WIFSIGNALED(wait_status)) {
    return "exit status " + std::to_string(WEXITSTATUS(wait_status));
  }
  const int signal = WTERMSIG(wait_status);
  return "killed by signal " + std::to_string(signal) + " (" +
         strsignal(signal) + ")";
}

std::string RecordToText(const status_record_t& record,
                         const PackageNames& names) {
  switch (record.kind) {
    case status_record_t::Kind::kStarted:
      return "started";
    case status_record_t::Kind::kExitCode:
      return "exit code " + std::to_string(record.exit_code) + ": " +
             DescribeExitCode(record.exit_code);
    case status_record_t::Kind::kNetworkState:
      return "network " + std::to_string(record.network.network_id) + ", " +
             (record.network.is_metered ? "metered" : "not metered");
    case status_record_t::Kind::kTransferStats:
      return StatsToText(record, names);
  }
  return "";
}

std::string RecordToJson(const status_record_t& record,
                         const PackageNames& names) {
  return RecordToJsonObject(record, names).dump();
}

std::string DaemonEndToText(int wait_status) {
  return "daemon ended: " + DescribeWaitStatus(wait_status);
}

std::string DaemonEndToJson(int wait_status) {
  json end = {{kRecord, "daemon_ended"}};
  if (WIFSIGNALED(wait_status)) {
    end["signal"] = WTERMSIG(wait_status);
  } else {
    end["exit_status"] = WEXITSTATUS(wait_status);
  }
  return end.dump();
}

}  // namespace vantrel
