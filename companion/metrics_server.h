#pragma once

#include <stddef.h>

#include <asio/io_context.hpp>
#include <chrono>
#include <functional>
#include <list>
#include <memory>
#include <optional>
#include <string>

#include "common/unique_fd.h"
#include "companion/tcp_address.h"
#include "support/descriptor.h"
#include "support/steady_time.h"
#include "support/timer.h"

namespace vantrel {

// Gives figures to scrapers: answers GET and HEAD of /metrics by HTTP/1.1
// (RFC 9110, RFC 9112), one request a connection. It needs nothing more, and
// has nothing more. However many scrapers come and whatever they do, they cost
// a bounded number of connections, each for a bounded time, and one text a
// second. Where all places are taken, the next one has that of the oldest that
// says nothing, or has its answer.
class MetricsServer {
 public:
  // Further ones wait in the kernel while all of these take their answers.
  static constexpr size_t kMaxConnections = 32;
  // From its first moment to its end. Half of what scrapers wait as a rule, so
  // that one that has waited for a place still has its answer in time.
  static constexpr std::chrono::seconds kScrapeTime{5};
  // How old a text may be.
  static constexpr std::chrono::seconds kTextTime{1};
  // The longest head of a request; also what is read after one.
  static constexpr size_t kMaxRequestBytes = 8192;

  // |get_text| has the figures in Prometheus' text format. |loop| outlives
  // this.
  MetricsServer(asio::io_context& loop, std::function<std::string()> get_text);
  MetricsServer(const MetricsServer&) = delete;
  MetricsServer& operator=(const MetricsServer&) = delete;
  ~MetricsServer();

  // Listens on |address|, which then has the port, too. False when it cannot;
  // errno says why. To be called once.
  [[nodiscard]] bool Open(tcp_address_t* address);
  // After a handler of the loop has failed: it may have been ours. Ends all
  // connections.
  void GoOn();

 private:
  class Connection;
  using Answer = std::shared_ptr<const std::string>;

  void OnConnection();
  void AddConnection(UniqueFd fd);
  // Waits for the next one where there is room for it, or can be.
  void WaitForConnection();
  bool HasRoom() const;
  // The oldest that is of no use, or the end of the list.
  std::list<std::unique_ptr<Connection>>::const_iterator FindIdle() const;
  // Destroys |connection|.
  void Remove(Connection* connection);
  void EndLateOnes();
  // Until the oldest connection is late.
  void WaitForEnd();
  Answer MakeAnswer(const std::string& request);
  // The text behind its head, the same for all who ask within kTextTime.
  Answer GetPage();

  asio::io_context& loop_;
  const std::function<std::string()> get_text_;
  Timer end_;
  Timer retry_;
  std::optional<Descriptor> listener_;
  std::list<std::unique_ptr<Connection>> connections_;  // oldest first
  Answer page_;
  SteadyTime page_end_;
};

// The status of HTTP for a request with this |head|, which ends with an empty
// line or is too long.
int JudgeRequest(const std::string& head);

}  // namespace vantrel
