// A link's work for N open streams: up, from the waiting chunks of one stream
// or of all to the write on the link; down, from the read on the link to a
// stream. Both with the few and large system calls of the companion's end.
#include <benchmark/benchmark.h>
#include <stdint.h>

#include <algorithm>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "link/bluetooth_socket.h"
#include "link/link_testing.h"
#include "link_v2/frame_testing.h"
#include "link_v2/proxy_socket_v2.h"
#include "reactor/reactor_testing.h"

namespace vantrel {
namespace {

constexpr size_t kChunkBytes = 4096;

// A stream whose application never wants for bytes; what comes for it is only
// counted.
class BenchConduit : public FakeConduit {
 public:
  explicit BenchConduit(uint32_t id)
      : FakeConduit(id, 10123, "com.example.bench") {}
  bool HasBuffer() const override { return waiting > 0; }
  bool GetNextBuffer(std::string* out) override {
    --waiting;
    out->assign(kChunkBytes, 'x');
    return true;
  }
  void Write(std::string data) override { received += data.size(); }

  int waiting = 0;
  size_t received = 0;
};

// A connected link with open streams, and the companion's end of it.
class LinkWithStreams {
 public:
  LinkWithStreams(int64_t protocol, int64_t count) {
    if (protocol == 20) {
      link_ = std::make_unique<ProxySocketV2>(nullptr, reactor_);
    } else {
      link_ = std::make_unique<BluetoothSocket>(
          nullptr, reactor_, BluetoothSocket::FLAG_UDP_V2, nullptr);
    }
    auto [fd, peer] = MakeSocketPair();
    peer_ = std::move(peer);
    const std::string header = GoodConnectionHeader();
    peer_->Write(header.data(), header.size());
    is_good_ = link_->Connect(fd);
    fcntl(fd, F_SETFL, O_NONBLOCK);
    if (protocol == 20) Receive(Frame(3, "D20C 02 08 01"));  // acknowledged
    for (uint32_t id = 1; id <= count; ++id) {
      streams_.push_back(std::make_unique<BenchConduit>(id));
      link_->RegisterTcpStream(streams_.back().get());
      Flush();
    }
  }

  bool IsGood() const { return is_good_; }
  BenchConduit& LastStream() { return *streams_.back(); }

  // Moves |chunks| of each of the last |busy| streams over the link.
  void Upload(size_t busy, int chunks) {
    for (size_t i = streams_.size() - busy; i < streams_.size(); ++i) {
      streams_[i]->waiting = chunks;
      link_->OnTcpDataAvailable(streams_[i]->GetId());
    }
    while (LastStream().waiting > 0) Flush();
    Flush();  // what was queued when the stream ran dry
  }
  void Receive(const std::string& bytes) {
    peer_->Write(bytes.data(), bytes.size());
    link_->OnReadReady();
  }
  // What a companion would send for |chunks| of the last stream: the messages
  // are the same both ways.
  std::string MakeMessages(int chunks) {
    std::string messages;
    for (LastStream().waiting = chunks; LastStream().waiting > 0;) {
      link_->OnTcpDataAvailable(LastStream().GetId());
      link_->OnWriteReady();
      messages += ReadAll(*peer_);
    }
    return messages;
  }

 private:
  void Flush() {
    link_->OnWriteReady();
    while (peer_->Read(buffer_.data(), buffer_.size()) ==
           static_cast<int>(buffer_.size())) {
    }
  }

  StopCatcher stop_;
  Reactor reactor_;
  std::unique_ptr<ProxySocket> link_;
  std::unique_ptr<Socket> peer_;
  std::vector<std::unique_ptr<BenchConduit>> streams_;
  std::vector<char> buffer_ = std::vector<char>(1 << 18);
  bool is_good_ = false;
};

void UploadStreams(benchmark::State& state) {
  LinkWithStreams link(state.range(0), state.range(1));
  if (!link.IsGood()) return state.SkipWithError("no link");
  const auto busy = static_cast<size_t>(state.range(2));
  while (state.KeepRunning()) link.Upload(busy, 1);
  state.SetBytesProcessed(state.iterations() * state.range(2) * kChunkBytes);
}

void DownloadStream(benchmark::State& state) {
  constexpr int kChunks = 8;
  LinkWithStreams link(state.range(0), state.range(1));
  if (!link.IsGood()) return state.SkipWithError("no link");
  const std::string messages = link.MakeMessages(kChunks);
  size_t expected = 0;
  while (state.KeepRunning()) {
    link.Receive(messages);
    expected += kChunks * kChunkBytes;
    if (link.LastStream().received != expected) {
      state.SkipWithError("bytes are missing");
      break;
    }
  }
  state.SetBytesProcessed(state.iterations() * kChunks * kChunkBytes);
}

BENCHMARK(UploadStreams)
    ->ArgNames({"protocol", "streams", "busy"})
    ->ArgsProduct({{5, 20}, {1, 16, 256, 1000}, {1}})
    ->ArgsProduct({{5, 20}, {16, 256}, {16}});
BENCHMARK(DownloadStream)
    ->ArgNames({"protocol", "streams"})
    ->ArgsProduct({{5, 20}, {1, 1000}});

}  // namespace
}  // namespace vantrel
