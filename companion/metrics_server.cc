#include "companion/metrics_server.h"

#include <errno.h>
#include <sys/socket.h>

#include <algorithm>
#include <string_view>
#include <system_error>
#include <utility>

namespace vantrel {
namespace {

// Many at once are no reason to refuse one.
constexpr int kScraperBacklog = 512;
constexpr std::chrono::seconds kScraperRetryTime{1};

constexpr char kEndOfHead[] = "\r\n\r\n";

const char* GetReasonPhrase(int status) {
  switch (status) {
    case 200:
      return "OK";
    case 404:
      return "Not Found";
    case 405:
      return "Method Not Allowed";
    case 431:
      return "Request Header Fields Too Large";
    case 505:
      return "HTTP Version Not Supported";
    default:
      return "Bad Request";
  }
}

std::string MakeMessage(int status, const char* type, const std::string& text) {
  return "HTTP/1.1 " + std::to_string(status) + " " + GetReasonPhrase(status) +
         (status == 405 ? "\r\nAllow: GET, HEAD" : "") +
         "\r\nContent-Type: " + type +
         "\r\nContent-Length: " + std::to_string(text.size()) +
         "\r\nConnection: close" + kEndOfHead + text;
}

// Takes what stands before |end| off the front of |text|, and |end| with it;
// all of it where there is none.
std::string_view TakeUntil(std::string_view* text, std::string_view end) {
  const std::string_view taken = text->substr(0, text->find(end));
  text->remove_prefix(std::min(taken.size() + end.size(), text->size()));
  return taken;
}

// The path of a request's target, which may name this server (RFC 9112, 3.2).
std::string_view GetPath(std::string_view target) {
  constexpr std::string_view kScheme = "http://";
  if (target.substr(0, kScheme.size()) == kScheme) {
    target.remove_prefix(kScheme.size());
    target.remove_prefix(std::min(target.find('/'), target.size()));
  }
  return target.substr(0, target.find('?'));
}

}  // namespace

int JudgeRequest(const std::string& head) {
  if (head.size() > MetricsServer::kMaxRequestBytes) return 431;
  std::string_view rest = head;
  std::string_view line = TakeUntil(&rest, "\r\n");
  const std::string_view method = TakeUntil(&line, " ");
  const std::string_view path = GetPath(TakeUntil(&line, " "));
  if (line.substr(0, 5) != "HTTP/" || path.empty()) return 400;
  if (line.substr(0, 7) != "HTTP/1.") return 505;
  if (method != "GET" && method != "HEAD") return 405;
  return path == "/metrics" ? 200 : 404;
}

// One request and its answer. The server destroys it.
class MetricsServer::Connection {
 public:
  Connection(MetricsServer& server, UniqueFd fd, SteadyTime end)
      : server_(server),
        end_(end),
        socket_(
            server.loop_, std::move(fd), [this] { OnReadable(); },
            [this] { OnWritable(); }) {
    socket_.WaitReadable();
  }

  SteadyTime GetEnd() const { return end_; }
  // Whether it has its answer, or does not ask for one.
  bool IsIdle() const { return answer_ == nullptr || sent_ == answer_->size(); }

 private:
  // Both may destroy this.
  void OnReadable() {
    char piece[4096];
    const ssize_t count = recv(socket_.GetFd(), piece, sizeof(piece), 0);
    if (count == 0 || (count < 0 && errno != EAGAIN)) {
      return server_.Remove(this);
    }
    if (count > 0) request_.append(piece, static_cast<size_t>(count));
    const bool is_long = request_.size() > kMaxRequestBytes;
    if (answer_ != nullptr && is_long) return server_.Remove(this);
    const bool is_whole = request_.find(kEndOfHead) != std::string::npos;
    if (answer_ == nullptr && (is_whole || is_long)) {
      answer_ = server_.MakeAnswer(request_);
      request_.clear();
      return OnWritable();
    }
    socket_.WaitReadable();
  }

  void OnWritable() {
    const ssize_t count =
        send(socket_.GetFd(), answer_->data() + sent_, answer_->size() - sent_,
             MSG_NOSIGNAL | MSG_DONTWAIT);
    if (count < 0 && errno != EAGAIN) return server_.Remove(this);
    sent_ += static_cast<size_t>(std::max<ssize_t>(count, 0));
    if (sent_ < answer_->size()) return socket_.WaitWritable();
    // Then the other end closes. Were this end closed first, with bytes in it
    // that nobody has read, the answer could be lost to a reset.
    shutdown(socket_.GetFd(), SHUT_WR);
    socket_.WaitReadable();
    server_.WaitForConnection();
  }

  MetricsServer& server_;
  const SteadyTime end_;
  Descriptor socket_;
  std::string request_;  // and what follows it
  Answer answer_;        // null until the request has come
  size_t sent_ = 0;      // of the answer
};

MetricsServer::MetricsServer(asio::io_context& loop,
                             std::function<std::string()> get_text)
    : loop_(loop),
      get_text_(std::move(get_text)),
      end_(loop, [this] { EndLateOnes(); }),
      retry_(loop, [this] { WaitForConnection(); }) {}

MetricsServer::~MetricsServer() = default;

bool MetricsServer::Open(tcp_address_t* address) {
  UniqueFd fd = BindTcp(address);
  if (fd.Get() < 0 || listen(fd.Get(), kScraperBacklog) != 0) return false;
  listener_.emplace(loop_, std::move(fd), [this] { OnConnection(); });
  WaitForConnection();
  return true;
}

void MetricsServer::GoOn() {
  connections_.clear();
  WaitForConnection();
}

void MetricsServer::OnConnection() {
  if (!HasRoom()) return;
  UniqueFd fd(accept4(listener_->GetFd(), nullptr, nullptr, SOCK_CLOEXEC));
  if (fd.Get() >= 0) {
    AddConnection(std::move(fd));
  } else if (errno != EAGAIN && errno != ECONNABORTED && errno != EINTR) {
    // As a rule there is no descriptor for it.
    return retry_.WaitFor(kScraperRetryTime);
  }
  WaitForConnection();
}

void MetricsServer::AddConnection(UniqueFd fd) {
  if (connections_.size() >= kMaxConnections) connections_.erase(FindIdle());
  const SteadyTime end = GetSteadyTime() + kScrapeTime;
  try {
    connections_.push_back(
        std::make_unique<Connection>(*this, std::move(fd), end));
  } catch (const std::system_error&) {
    return;  // the system cannot watch one more
  }
  if (connections_.size() == 1) WaitForEnd();
}

void MetricsServer::WaitForConnection() {
  if (HasRoom()) listener_->WaitReadable();
}

bool MetricsServer::HasRoom() const {
  return connections_.size() < kMaxConnections ||
         FindIdle() != connections_.end();
}

std::list<std::unique_ptr<MetricsServer::Connection>>::const_iterator
MetricsServer::FindIdle() const {
  return std::find_if(connections_.begin(), connections_.end(),
                      [](const auto& one) { return one->IsIdle(); });
}

void MetricsServer::Remove(Connection* connection) {
  connections_.remove_if(
      [connection](const auto& one) { return one.get() == connection; });
  if (connections_.empty()) end_.Cancel();
  WaitForConnection();
}

void MetricsServer::EndLateOnes() {
  const SteadyTime now = GetSteadyTime();
  while (!connections_.empty() && connections_.front()->GetEnd() <= now) {
    connections_.pop_front();
  }
  WaitForEnd();
  WaitForConnection();
}

void MetricsServer::WaitForEnd() {
  if (!connections_.empty()) end_.WaitUntil(connections_.front()->GetEnd());
}

MetricsServer::Answer MetricsServer::MakeAnswer(const std::string& request) {
  const int status = JudgeRequest(request);
  if (status != 200) {
    return std::make_shared<const std::string>(MakeMessage(
        status, "text/plain; charset=utf-8", "The figures are at /metrics.\n"));
  }
  Answer page = GetPage();
  if (request.compare(0, 4, "HEAD") != 0) return page;
  return std::make_shared<const std::string>(
      page->substr(0, page->find(kEndOfHead) + sizeof(kEndOfHead) - 1));
}

MetricsServer::Answer MetricsServer::GetPage() {
  const SteadyTime now = GetSteadyTime();
  if (page_ == nullptr || now >= page_end_) {
    page_ = std::make_shared<const std::string>(MakeMessage(
        200, "text/plain; version=0.0.4; charset=utf-8", get_text_()));
    page_end_ = now + kTextTime;
  }
  return page_;
}

}  // namespace vantrel
