// make_seeds DIRECTORY: writes the first test cases of every fuzz target, each
// a file DIRECTORY/TARGET/NAME. They are sound: the fuzzer finds the rest.
#include <filesystem>
#include <fstream>
#include <string>

#include "control/control_packets.h"
#include "control/status_records.h"
#include "fuzz/companion_link_steps.h"
#include "fuzz/fuzz_messages.h"
#include "fuzz/link_script.h"
#include "link/connection_header.h"
#include "proto/src/transfer_stats.pb.h"

namespace vantrel {
namespace {

std::filesystem::path root;

void Seed(const char* target, const std::string& name,
          const std::string& bytes) {
  const std::filesystem::path directory = root / target;
  std::filesystem::create_directories(directory);
  std::ofstream file(directory / name, std::ios::binary);
  file << bytes;
  if (!file.flush()) throw std::runtime_error("cannot write " + name);
}

std::string Byte(size_t value) {
  return std::string(1, static_cast<char>(value));
}
std::string Word(uint16_t value) {
  std::string word;
  PutLe16(&word, value);
  return word;
}
std::string Short(const std::string& bytes) {
  return Byte(bytes.size()) + bytes;
}
// As TakeMessage() reads it.
std::string Message(const std::string& head, uint16_t filler = 0) {
  return Byte(filler == 0 ? 0 : FUZZ_FILLER) + Short(head) +
         (filler == 0 ? "" : Word(filler));
}

HostAndPort Address(uint32_t address, uint16_t port) {
  return HostAndPort::FromIPv4NetworkBytes(htonl(address), htons(port));
}
const HostAndPort kLocal = Address(0x7F000001, 40000);
const HostAndPort kDns = Address(0xC6336401, 53);
const HostAndPort kTcpRemote = Address(0x7F000001, kRemoteTcpPort);
const HostAndPort kUdpRemote = Address(0x7F000001, kRemoteUdpPort);

messages::Header Header(messages::MessageType type) {
  messages::Header header;
  header.set_type(type);
  return header;
}
std::string Udp(const HostAndPort& local, const HostAndPort& remote,
                bool is_failure) {
  messages::Header header =
      Header(is_failure ? messages::UDP_FAILURE : messages::UDP_SEND);
  const auto fill = [&](auto* message) {
    EncodeEndpoint(local, message->mutable_source());
    EncodeEndpoint(remote, message->mutable_destination());
  };
  if (is_failure) {
    fill(header.mutable_udp_failure());
  } else {
    fill(header.mutable_udp_send());
  }
  return header.SerializeAsString();
}

// What a companion says in each protocol, about stream 1.
std::string CompanionData(bool is_v2, uint16_t length) {
  if (!is_v2) return Message(v1::TcpData(1, 0), length);
  messages::Header header = Header(messages::TCP_WRITE);
  header.mutable_tcp_write()->set_stream_id(1);
  return Message(header.SerializeAsString(), length);
}
std::string CompanionAck(bool is_v2) {
  if (!is_v2) return Message(v1::TcpWriteAck(1));
  messages::Header header = Header(messages::TCP_WRITE_ACK);
  header.mutable_tcp_write_ack()->set_stream_id(1);
  return Message(header.SerializeAsString());
}
std::string Close(bool is_v2) {
  if (!is_v2) return Message(v1::TcpClose(1));
  messages::Header header = Header(messages::TCP_CLOSE);
  header.mutable_tcp_close()->set_stream_id(1);
  return Message(header.SerializeAsString());
}
std::string Datagram(bool is_v2, const HostAndPort& local,
                     const HostAndPort& remote, bool is_failure) {
  if (is_v2) return Message(Udp(local, remote, is_failure), 40);
  return Message(is_failure ? v1::UdpFailureV2(local, remote, 0)
                            : v1::UdpDatagramV2(local, remote, 10123, 0),
                 40);
}
std::string NetworkState(bool is_v2) {
  if (!is_v2) return Message(v1::ActiveNetworkState(7, true));
  messages::Header header = Header(messages::NETWORK_STATE);
  header.mutable_network_state()->set_network_id(7);
  return Message(header.SerializeAsString());
}
std::string Teardown() {
  messages::Header header = Header(messages::TEARDOWN);
  header.mutable_teardown()->set_reason("bye");
  return Message(header.SerializeAsString());
}

void SeedDaemonLink(const char* target, const std::string& choice, bool is_v2) {
  const auto begin = [&](uint16_t max_tx_size) {
    return choice + Word(max_tx_size) + Byte(1);
  };
  const auto says = [](const std::string& message) {
    return Byte(STEP_COMPANION_SAYS) + message;
  };
  const std::string pass = Byte(STEP_PASS);
  const std::string connect = Byte(STEP_CONNECT) + pass + pass;
  const std::string read = Byte(STEP_LINK_READ) + pass;
  Seed(target, "upload",
       begin(0) + connect + Byte(STEP_SEND) + Word(40000) + read + read +
           says(CompanionAck(is_v2)) + says(CompanionAck(is_v2)) + read +
           Byte(STEP_END) + read);
  Seed(target, "download",
       begin(990) + connect + says(CompanionData(is_v2, 16000)) +
           says(CompanionData(is_v2, 9)) + Byte(STEP_READ) +
           says(Close(is_v2)) + pass + Byte(STEP_READ));
  Seed(target, "two_streams",
       begin(0) + connect + connect + Byte(STEP_SEND) + Word(5000) +
           Byte(STEP_SEND | 0x10) + Word(9000) + read + Byte(STEP_GO | 0x10) +
           read + says(Close(is_v2)) + read);
  Seed(target, "datagrams",
       begin(0) + Byte(STEP_DATAGRAM) + Byte(0) + Word(30) + read +
           says(Datagram(is_v2, kLocal, kDns, false)) + pass +
           says(Datagram(is_v2, kLocal, kDns, true)) + pass +
           Byte(STEP_DIVERTED) + Byte(20) + pass + Byte(STEP_READ));
  Seed(target, "control",
       begin(0) + says(NetworkState(is_v2)) + Byte(STEP_CONTROL) +
           Short(EncodeControlPacket(TYPE_DUMP)) + Byte(STEP_CONTROL) +
           Short(EncodeControlPacket(TYPE_PUSH, 100000)) + read +
           Byte(STEP_CONTROL) +
           Short(EncodeControlPacket(TYPE_TRANSFER_STATS)) + pass +
           Byte(STEP_CONTROL) + Short(EncodeControlPacket(TYPE_STOP)));
  Seed(target, "blocked",
       begin(0) + connect + Byte(STEP_SEND) + Word(60000) + pass +
           Byte(STEP_WAIT) + Byte(7) + Byte(STEP_WAIT) + Byte(7) +
           Byte(STEP_WAIT) + Byte(7) + Byte(STEP_LINK_ENDS));
  if (is_v2) Seed(target, "teardown", begin(0) + connect + says(Teardown()));
}

// What a device says.
std::string DeviceConnect(bool is_v2, uint32_t id) {
  if (!is_v2) return Message(v1::TcpConnect(id, kTcpRemote, 10123));
  messages::Header header = Header(messages::TCP_CONNECT);
  messages::MessageTcpConnect* connect = header.mutable_tcp_connect();
  connect->set_stream_id(id);
  connect->set_uid(10123);
  EncodeEndpoint(kTcpRemote, connect->mutable_destination());
  return Message(header.SerializeAsString());
}
std::string DeviceHandshake(int protocol) {
  if (protocol == 1) return "";
  if (protocol == 5) {
    return Message(v1::Handshake(TYPE_HANDSHAKE, v1::kHandshakeVersion));
  }
  messages::Header header = Header(messages::HANDSHAKE_START);
  header.mutable_handshake_start()->set_version(kHandshakeVersionV2);
  return Message(header.SerializeAsString());
}
std::string PackageName(bool is_v2) {
  if (!is_v2) return Message(v1::PackageName(10123, 0), 12);
  messages::Header header = Header(messages::PACKAGE_NAMES);
  auto* entry = header.mutable_package_names()->add_entries();
  entry->set_uid(10123);
  entry->set_package_name("com.example");
  return Message(header.SerializeAsString());
}

void SeedCompanion(uint8_t choice, int protocol) {
  const bool is_v2 = protocol == 20;
  const std::string name = "v" + std::to_string(protocol);
  const auto says = [](const std::string& message) {
    return message.empty() ? "" : Byte(STEP_DEVICE_SAYS) + message;
  };
  const std::string hello = DeviceHandshake(protocol);
  const std::string connect = DeviceConnect(is_v2, 1);
  const std::string datagram = Datagram(is_v2, kLocal, kUdpRemote, false);
  Seed("companion", name,
       Byte(choice) + hello + connect + PackageName(is_v2) +
           CompanionData(is_v2, 3000) + datagram + Close(is_v2));
  const std::string begin = Byte(choice) + says(hello) + says(connect);
  const std::string read = Byte(STEP_DEVICE_READS);
  const std::string end = Byte(STEP_DEVICE_ENDS);
  Seed("companion_link", name + "_stream",
       begin + Byte(STEP_ACCEPT) + says(CompanionData(is_v2, 3000)) +
           Byte(STEP_REMOTE_READS) + Byte(STEP_REMOTE_SENDS) + Word(50000) +
           read + read + Byte(STEP_REMOTE_ENDS) + read);
  Seed("companion_link", name + "_close",
       begin + says(PackageName(is_v2)) + says(CompanionData(is_v2, 60000)) +
           says(Close(is_v2)) + Byte(STEP_ACCEPT) + Byte(STEP_REMOTE_READS) +
           Byte(STEP_REMOTE_RESETS) + Byte(STEP_TICK) + Byte(1) + end);
  Seed("companion_link", name + "_datagrams",
       Byte(choice) + says(hello) + says(datagram) + Byte(STEP_ANSWER) +
           Word(200) + read + says(datagram) + Byte(STEP_ANSWER) + Word(60000) +
           Byte(STEP_NETWORK) + Byte(STEP_CLOSE) + read + end);
}

void SeedLinks() {
  SeedDaemonLink("link_v1", Byte(0), false);
  for (const char* name : {"upload", "download", "datagrams"}) {
    std::ifstream other(root / "link_v1" / name, std::ios::binary);
    std::string script(std::istreambuf_iterator<char>(other), {});
    script[0] = 1;
    Seed("link_v1", std::string("v5_") + name, script);
  }
  SeedDaemonLink("link_v2", "", true);
  SeedCompanion(0, 20);
  SeedCompanion(1, 1);
  SeedCompanion(2, 5);
  Seed("v1_messages", "streams",
       CompanionData(false, 3000) + CompanionAck(false) + Close(false));
  Seed("v1_messages", "others",
       NetworkState(false) + Message(v1::PingEcho(7)) +
           Message(v1::TransferData(TYPE_PULL_DATA, 1, 0), 65535) +
           Datagram(false, kLocal, kDns, true) +
           Message(v1::Handshake(TYPE_HANDSHAKE_ACK, 5), 20));
  Seed("frames", "sound",
       CompanionData(true, 16384) + CompanionAck(true) + Teardown());
  Seed("frames", "too_large", CompanionData(true, 16385) + NetworkState(true));
  Seed("frames", "broken",
       Byte(FUZZ_RAW) + Short(FuzzFrame("\x08\x07", "payload").substr(0, 12)));
}

void SeedDns() {
  using std::string_literals::operator""s;
  const std::string name = "\3www\7example\3com\0"s;
  Seed("dns", "query", "\x0A\x1B\1\0\0\1\0\0\0\0\0\0"s + name + "\0\1\0\1"s);
  Seed("dns", "answer",
       "\x0A\x1B\x81\x80\0\1\0\1\0\0\0\0"s + name +
           "\0\1\0\1\xC0\x0C\0\1\0\1\0\0\0<\0\4\xC6\x33\x64\7"s);
}

void SeedTexts() {
  const std::string rest =
      " 01 00000000:00000000 00:00000000 00000000 10123        0 4711 1 "
      "0000000000000000 20 4 30 10 -1\n";
  const std::string zeros = "0000000000000000FFFF0000";
  const std::string title = "  sl  local_address rem_address   st tx_queue\n";
  Seed("socket_table", "ipv4",
       title + "   0: EFA7A8C0:9C40 076433C6:0050" + rest +
           "   1: 0100007F:1F90 EFA7A8C0:9C40" + rest);
  Seed("socket_table", "ipv6",
       title + "   0: " + zeros + "EFA7A8C0:9C40 " + zeros + "076433C6:0050" +
           rest);
  Seed("packages", "list",
       "com.example 10123 0 /data/data/com.example default:x none 0\n"
       "com.other 10124 0 /data\n# no package\n");
  Seed("properties", "list",
       "# a comment\nro.product=x\nro.debuggable=0\n ro.debuggable = yes \n");
  Seed("figures", "request",
       "GET http://host/metrics?x HTTP/1.1\r\nHost: host\r\n\r\n");
  Seed("figures", "name", "com.\"exa\\mple\n\xFF\xC3\xA4");
  Seed("figures", "state",
       R"({"record":"state","state":"running","time_ms":1,"uptime_ms":1,)"
       R"("starts":1,"devices":[{"id":1,"state":"closing","link":"fd",)"
       R"("protocol":"5","uptime_ms":1,"link_bytes":{"rx_bytes":1,)"
       R"("tx_bytes":1},"bytes_per_s":1,"waiting_bytes":1,"uids":[{"uid":7,)"
       R"("rx_bytes":18446744073709551615,"tx_bytes":1,"name":"a",)"
       R"("streams_opened":1,"streams_open":1,"oldest_stream_ms":1,)"
       R"("streams_denied":1,"rx_datagrams":1,"tx_datagrams":1,)"
       R"("dropped_datagrams":1,"streams":[{"id":1,"remote":"a",)"
       R"("rx_bytes":1,"tx_bytes":1,"age_ms":1}]}]}],)"
       R"("left_out":{"devices":0,"uids":0,"streams":0}})");
  const char* const addresses[] = {"unix:/run/x",
                                   "unix:@name",
                                   "tcp:host:80",
                                   "tcp:[::1]:65535",
                                   "rfcomm:01:23:45:67:89:aB/30",
                                   "rfcomm:1",
                                   "bluetooth",
                                   "bluetooth:01:23:45:67:89:aB",
                                   "fd:3"};
  int number = 0;
  for (const char* address : addresses) {
    Seed("link_address", std::to_string(++number), address);
  }
  Seed("rules", "all",
       Short("com.example.mail") +
           "[limit.a]\ndown = \"1.5 MB/s\"\neach = \"device\"\n"
           "[quota.b]\nbytes = \"5 GB\"\nper = \"month\"\n"
           "[[rule]]\nname = \"c\"\napplication = [\"com.*\", 1, \"2-3\", "
           "\"unknown\"]\ndevice = \"01:23:45:67:89:AB\"\n"
           "link = \"tcp:[::1]:0\"\ndestination = \"10.0.0.0/8\"\n"
           "port = [53, \"1-9\"]\nprotocol = \"tcp\"\nmetered = true\n"
           "priority = \"low\"\nlimit = [\"a\", { up = \"2 Mbit/s\" }]\n"
           "quota = [\"b\", { bytes = \"1 kB\", per = \"day\" }]\n"
           "[[rule]]\naction = \"deny\"\n");
}

void SeedRecords() {
  connection_header_t header;
  header.channel = 3;
  header.max_tx_size = 990;
  Seed("connection_header", "connected", EncodeConnectionHeader(header) + "x");
  header.status = 1;
  Seed("connection_header", "failed", EncodeConnectionHeader(header));

  android::corvane::protos::MessageUidTransferStatsInfo stats;
  auto* usage = stats.add_uid_transfer_stats();
  usage->set_uid(10123);
  usage->set_rx_bytes(1);
  const std::string payload = stats.SerializeAsString();
  const std::string list = Short("com.example 10123 0\na\"b\\ 10124\n");
  Seed("status", "records",
       list + EncodeStatusWord(0) + EncodeNetworkState({7, true}) +
           EncodeTransferStatsHeader(static_cast<uint16_t>(payload.size())) +
           payload);
  Seed("status", "failed", list + EncodeStatusWord(kUdpServerFailed));

  std::string packets;
  for (uint8_t type = TYPE_STOP; type <= TYPE_TRANSFER_STATS; ++type) {
    packets += Short(EncodeControlPacket(type)) +
               Short(EncodeControlPacket(type, 70000));
  }
  Seed("control", "all_packets", packets);
  std::string steps;
  for (size_t step = 0; step < 64; ++step) {
    steps += Byte(step % 8 | step / 8 << 4) + Byte(step * 3);
  }
  Seed("scheduler", "all_steps", steps);
  // A queue that stands: large datagrams, each taken 15 ms after the other.
  steps.clear();
  for (int i = 0; i < 12; ++i) steps += Byte(3) + Byte(255);
  for (int i = 0; i < 24; ++i)
    steps += Byte(5) + Byte(15 << 4 | 1) + Byte(3) + Byte(255);
  Seed("scheduler", "standing_queue", steps);
}

}  // namespace
}  // namespace vantrel

int main(int argc, char** argv) {
  if (argc != 2) return 2;
  vantrel::root = argv[1];
  vantrel::SeedLinks();
  vantrel::SeedDns();
  vantrel::SeedTexts();
  vantrel::SeedRecords();
  return 0;
}
