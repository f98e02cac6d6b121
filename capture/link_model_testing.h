// For the unit tests of both links: a plain second implementation of what the
// documents say about streams, credit, the queue, write registration and the
// write time-out. Random sequences of events go to a real link with real
// conduits and to the model, and the two must agree after each event.
#pragma once

#include <gtest/gtest.h>
#include <signal.h>
#include <stdint.h>
#include <sys/socket.h>

#include <algorithm>
#include <deque>
#include <map>
#include <memory>
#include <random>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "capture/open_conduits.h"
#include "capture/original_destination_testing.h"
#include "capture/tcp_conduit.h"
#include "common/hex_testing.h"
#include "common/monotonic_clock_testing.h"
#include "common/seed_testing.h"
#include "link/link_testing.h"
#include "platform/linux/device_files_testing.h"
#include "platform/linux/log_capture.h"
#include "reactor/reactor_testing.h"

namespace vantrel {

// One protocol, as the model speaks it: written out, apart from our encoders.
class LinkLanguage {
 public:
  virtual ~LinkLanguage() = default;
  virtual std::unique_ptr<ProxySocket> MakeLink(ProxySocket::Delegate* delegate,
                                                Reactor& reactor) = 0;
  // What the link says: at first, and then when the companion has said Ack().
  virtual std::string Hello() = 0;
  virtual std::string Done() = 0;
  virtual std::string Ack() = 0;
  // The messages about the new stream |id| to 198.51.100.80:80 of nobody.
  virtual std::vector<std::string> Connect(uint8_t id, bool is_first) = 0;
  // What both sides say of a stream, and an acknowledgement of the companion.
  virtual std::string Data(uint8_t id, const std::string& bytes) = 0;
  virtual std::string Close(uint8_t id) = 0;
  virtual std::string WriteAck(uint8_t id) = 0;
  // Whether the link comes back after a turn in which streams had something,
  // though it has asked them again and they had no more.
  virtual bool ComesBack() = 0;
};

// What the documents say, without descriptors.
class LinkModel {
 public:
  explicit LinkModel(LinkLanguage& language) : language_(language) {}

  struct stream_t {
    std::string unread;  // sent by the application
    bool has_ended = false;
    bool is_closed = false;  // the conduit has seen that
    std::deque<std::string> chunks;
    int credit = 8;
    bool reads = true;  // waits for the application
  };

  void Append(const std::string& message) {
    if (queue.empty()) {
      writes = true;
      started_ = now;
    }
    queue.push_back(message);
    if (started_ != 0 && now - started_ >= 15) is_stopped = true;
  }
  void Open(uint8_t id) {
    for (const auto& m : language_.Connect(id, !has_had_streams_)) Append(m);
    has_had_streams_ = true;
    streams[id] = {};
  }
  // The conduit looks at its application.
  void Read(uint8_t id) {
    stream_t& stream = streams[id];
    while (stream.chunks.size() < 4 && !stream.unread.empty()) {
      stream.chunks.push_back(stream.unread.substr(0, 4096));
      stream.unread.erase(0, 4096);
      OnAvailable(id);
    }
    if (stream.chunks.size() < 4 && !stream.has_ended) return;
    stream.reads = false;
    if (!stream.chunks.empty()) return;
    stream.is_closed = true;
    OnAvailable(id);
  }
  void Acknowledge(uint8_t id) {
    if (streams.count(id) == 0) return;
    ++streams[id].credit;
    OnAvailable(id);
  }
  void OnAvailable(uint8_t id) {
    ready_.insert(id);
    writes = true;
  }
  void Forget(uint8_t id) {
    streams.erase(id);
    ready_.erase(id);
  }
  // The socket takes whatever there is.
  void Write() {
    bool is_asked_again = queue.size() > 15;
    bool had_something = is_asked_again;
    while (queue.size() <= 15 && TakeTurns()) {
      had_something = true;
      is_asked_again = queue.size() > 15;
    }
    for (const std::string& message : queue) sent += message;
    queue.clear();
    writes = language_.ComesBack() ? had_something : is_asked_again;
    started_ = writes ? now : 0;
  }

  std::map<uint8_t, stream_t> streams;
  std::vector<std::string> queue;
  std::string sent;
  bool writes = false;
  bool is_stopped = false;
  int64_t now = 1;  // seconds

 private:
  bool TakeTurns() {
    bool had_something = false;
    for (const uint8_t id : std::set<uint8_t>(ready_)) {
      stream_t& stream = streams[id];
      if (stream.is_closed) {
        Forget(id);
        Append(language_.Close(id));
      } else if (stream.credit > 0 && !stream.chunks.empty()) {
        --stream.credit;
        stream.reads = true;
        Append(language_.Data(id, stream.chunks.front()));
        stream.chunks.pop_front();
      } else {
        ready_.erase(id);
        continue;
      }
      had_something = true;
    }
    return had_something;
  }

  LinkLanguage& language_;
  std::set<uint8_t> ready_;
  int64_t started_ = 0;  // 0: nothing is to be written
  bool has_had_streams_ = false;
};

// One random sequence, on the real link and on the model.
class LinkModelRun {
 public:
  LinkModelRun(LinkLanguage& language, uint32_t seed)
      : language_(language), random_(seed), model_(language) {
    signal(SIGPIPE, SIG_IGN);
    SetOriginalDestination(&remote_);
    SetDeviceFile(DeviceFile::kPackageList, "/dev/null");
    link_ = language.MakeLink(&delegate_, reactor_);
  }
  ~LinkModelRun() {
    open_conduits_.ResetAll();
    SetOriginalDestination(nullptr);
    SetMonotonicClockLead(0);
  }

  void Run(int events) {
    auto [fd, peer] = MakeSocketPair();
    peer_ = std::move(peer);
    Say(GoodConnectionHeader());
    ASSERT_TRUE(link_->Connect(fd));
    fcntl(fd, F_SETFL, O_NONBLOCK);
    if (!language_.Hello().empty()) model_.Append(language_.Hello());
    HearFromCompanion(language_.Ack());
    if (!language_.Done().empty()) model_.Append(language_.Done());
    for (int i = 0; i < events && !model_.is_stopped; ++i) {
      const int event = Below(100);
      SCOPED_TRACE("event " + std::to_string(i) + ": " + std::to_string(event));
      Do(event);
      Compare();
      if (::testing::Test::HasFatalFailure()) return;
    }
    if (model_.queue.empty() || model_.is_stopped) return;
    peer_.reset();
    link_->OnWriteReady();
    EXPECT_TRUE(stop_.TakeStop()) << "a failed write ends the link";
  }

 private:
  int Below(int n) { return static_cast<int>(random_() % n); }
  std::string SomeBytes(int max) {
    // Bytes that tell where they come from.
    std::string bytes(static_cast<size_t>(Below(max)), '\0');
    for (char& byte : bytes) byte = static_cast<char>(next_byte_++ / 7);
    return bytes;
  }
  void Say(const std::string& bytes) {
    peer_->Write(bytes.data(), bytes.size());
  }
  void HearFromCompanion(const std::string& message) {
    if (message.empty()) return;
    Say(message);
    link_->OnReadReady();
  }

  void Do(int event) {
    // Of a stream that is known, has been, or will be.
    const auto id = static_cast<uint8_t>(1 + Below(last_id_ + 2));
    const bool is_open = model_.streams.count(id) != 0;
    if (event < 8) {
      if (last_id_ < 100) Open();
    } else if (event < 30) {
      if (is_open) ApplicationSends(id);
    } else if (event < 34) {
      if (is_open) ApplicationEnds(id);
    } else if (event < 45) {
      if (is_open) LookAtApplication(id);
    } else if (event < 70) {
      LetLinkWrite();
    } else if (event < 86) {
      HearFromCompanion(language_.WriteAck(id));
      model_.Acknowledge(id);
    } else if (event < 92) {
      const std::string bytes = SomeBytes(3000);
      HearFromCompanion(language_.Data(id, bytes));
      if (is_open) Deliver(id, bytes);
    } else if (event < 93) {
      HearFromCompanion(language_.Close(id));
      if (is_open) Forget(id);
    } else if (event < 94) {
      const std::string bytes = SomeBytes(3000);
      HearFromCompanion(language_.Data(id, bytes) + language_.Close(id));
      if (is_open) DeliverAndForget(id, bytes);
    } else if (event < 98) {
      is_blocked_ = !is_blocked_;
    } else {
      // Never near the limit of 15: the real clock goes on, too.
      model_.now += 8;
      SetMonotonicClockLead(model_.now - 1);
    }
  }

  void Open() {
    auto [fd, application] = MakeSocketPair();
    ++last_id_;
    applications_[last_id_] = std::move(application);
    conduits_[last_id_] =
        new TcpConduit(reactor_, *link_, fd, last_id_, open_conduits_);
    model_.Open(last_id_);
  }
  void ApplicationSends(uint8_t id) {
    LinkModel::stream_t& stream = model_.streams[id];
    if (stream.has_ended || stream.unread.size() > 50000) return;
    const std::string bytes = SomeBytes(12000);
    ASSERT_EQ(static_cast<int>(bytes.size()),
              applications_[id]->Write(bytes.data(), bytes.size()));
    stream.unread += bytes;
  }
  void ApplicationEnds(uint8_t id) {
    shutdown(applications_[id]->GetFd(), SHUT_WR);
    model_.streams[id].has_ended = true;
  }
  // As the loop does while the application's socket is readable.
  void LookAtApplication(uint8_t id) {
    const LinkModel::stream_t& stream = model_.streams[id];
    if (!stream.reads || (stream.unread.empty() && !stream.has_ended)) return;
    conduits_[id]->OnReadReady();
    model_.Read(id);
  }
  // As the loop does while the link's socket is writable.
  void LetLinkWrite() {
    if (!model_.writes || is_blocked_) return;
    link_->OnWriteReady();
    model_.Write();
  }
  void Deliver(uint8_t id, const std::string& bytes) {
    conduits_[id]->OnWriteReady();
    ASSERT_EQ(bytes, ReadAll(*applications_[id]));
  }
  // The bytes and the end of a stream have come in one pass of the loop, in
  // which the application's socket is readable, too.
  void DeliverAndForget(uint8_t id, const std::string& bytes) {
    const bool is_gone = model_.streams[id].is_closed;
    if (!is_gone) {
      conduits_[id]->OnReadReady();
      ASSERT_TRUE(reactor_.IsRegistered(*conduits_[id], Reactor::kWrite));
      Deliver(id, bytes);
    }
    Forget(id);
  }
  void Forget(uint8_t id) {
    model_.Forget(id);
    // The conduit has destroyed itself.
    char byte;
    const int count = applications_[id]->Read(&byte, 1);
    ASSERT_TRUE(count == 0 || (count == -1 && errno == ECONNRESET)) << count;
  }

  void Compare() {
    sent_ += ReadAll(*peer_);
    ASSERT_EQ(model_.sent.size(), sent_.size());
    ASSERT_TRUE(model_.sent == sent_);
    ASSERT_EQ(model_.is_stopped, stop_.TakeStop());
    ASSERT_EQ(model_.writes, reactor_.IsRegistered(*link_, Reactor::kWrite));
    for (const auto& [id, stream] : model_.streams) {
      ASSERT_EQ(stream.reads,
                reactor_.IsRegistered(*conduits_[id], Reactor::kRead));
    }
  }

  LinkLanguage& language_;
  std::mt19937 random_;
  LinkModel model_;
  const HostAndPort remote_ = Endpoint("C6336450", 80);
  const LogCapture log_;
  StopCatcher stop_;
  Reactor reactor_;
  FakeLinkDelegate delegate_;
  std::unique_ptr<ProxySocket> link_;
  OpenConduits open_conduits_;
  std::unique_ptr<Socket> peer_;
  std::map<uint8_t, std::unique_ptr<Socket>> applications_;
  std::map<uint8_t, TcpConduit*> conduits_;  // own themselves
  uint8_t last_id_ = 0;
  uint32_t next_byte_ = 0;
  bool is_blocked_ = false;
  std::string sent_;
};

// |runs| sequences, each with a seed of its own.
inline void RunLinkModel(LinkLanguage& language, uint32_t runs) {
  const uint32_t first = FirstSeed();
  for (uint32_t seed = first; seed != first + runs; ++seed) {
    SCOPED_TRACE("VANTREL_SEED=" + std::to_string(seed));
    LinkModelRun(language, seed).Run(400);
    if (::testing::Test::HasFatalFailure()) return;
  }
}

}  // namespace vantrel
