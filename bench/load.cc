// The two ends of every end-to-end measurement: a server, and the clients that
// put it under load. Both use a thread per connection and blocking calls, so
// that their own cost is small and the same for whatever lies between them.
//
// One exchange of a connection: the client sends a request_t and then |up|
// bytes; when all of them have come, the server sends |down| bytes. So a figure
// counts what has arrived, not what some buffer has taken.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <pthread.h>
#include <stdint.h>
#include <string.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <chrono>
#include <iostream>
#include <memory>
#include <nlohmann/json.hpp>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

namespace {

using json = nlohmann::json;
using Clock = std::chrono::steady_clock;

constexpr size_t kBlockBytes = 1 << 18;
constexpr size_t kMaxSamples = 1 << 20;  // per client, bounds its memory
constexpr int kGiveUpSeconds = 10;       // without a byte of an answer
constexpr int kLostMs = 500;             // without the answer to a datagram

struct request_t {
  uint64_t up = 0;
  uint64_t down = 0;
};

// A measurement as the command line asks for it.
struct options_t {
  std::string address = "198.51.100.80";
  uint16_t port = 7000;
  uint32_t clients = 1;
  request_t request;
  double seconds = 1;      // 0: one exchange per client
  uint64_t exchanges = 0;  // per client, in place of |seconds|; 0: no number
  uint32_t pause_ms = 0;   // of a client after each exchange
  bool is_new = false;
};

// What one client has seen. |samples_us| counts from the request, or from the
// connect() of a new connection, to the last byte of the answer.
struct tally_t {
  uint64_t exchanges = 0;
  uint64_t failures = 0;
  std::vector<float> samples_us;
};

class Descriptor {
 public:
  explicit Descriptor(int fd) : fd_(fd) {}
  ~Descriptor() { Close(); }
  Descriptor(const Descriptor&) = delete;
  Descriptor& operator=(const Descriptor&) = delete;
  void Reset(int fd) {
    Close();
    fd_ = fd;
  }
  int Get() const { return fd_; }
  bool IsOpen() const { return fd_ != -1; }

 private:
  void Close() {
    if (fd_ != -1) close(fd_);
    fd_ = -1;
  }
  int fd_;
};

sockaddr_in ToSocketAddress(const options_t& options) {
  sockaddr_in address = {};
  address.sin_family = AF_INET;
  address.sin_port = htons(options.port);
  if (inet_pton(AF_INET, options.address.c_str(), &address.sin_addr) != 1) {
    throw std::runtime_error("not an IPv4 address: " + options.address);
  }
  return address;
}

// A socket connected to the server, or bound as the server; throws on failure.
int OpenServer(const options_t& options, int type) {
  const sockaddr_in address = ToSocketAddress(options);
  const int fd = socket(AF_INET, type | SOCK_CLOEXEC, 0);
  const int on = 1;
  setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof(on));
  if (bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) ==
          -1 ||
      (type == SOCK_STREAM && listen(fd, 4096) == -1)) {
    const int error = errno;
    close(fd);
    throw std::runtime_error(strerror(error));
  }
  return fd;
}

// -1 on failure.
int Connect(const options_t& options, int type, timeval give_up) {
  const sockaddr_in address = ToSocketAddress(options);
  const int fd = socket(AF_INET, type | SOCK_CLOEXEC, 0);
  const int on = 1;
  setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &give_up, sizeof(give_up));
  setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &give_up, sizeof(give_up));
  if (type == SOCK_STREAM) {
    setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof(on));
  }
  if (connect(fd, reinterpret_cast<const sockaddr*>(&address),
              sizeof(address)) == 0) {
    return fd;
  }
  close(fd);
  return -1;
}

bool SendBytes(int fd, std::vector<char>& block, uint64_t count) {
  while (count > 0) {
    const ssize_t sent =
        send(fd, block.data(), std::min<uint64_t>(count, block.size()),
             MSG_NOSIGNAL);
    if (sent <= 0) return false;
    count -= static_cast<uint64_t>(sent);
  }
  return true;
}

bool ReceiveBytes(int fd, std::vector<char>& block, uint64_t count) {
  while (count > 0) {
    const ssize_t got =
        recv(fd, block.data(), std::min<uint64_t>(count, block.size()), 0);
    if (got <= 0) return false;
    count -= static_cast<uint64_t>(got);
  }
  return true;
}

void ServeConnection(int fd) {
  const Descriptor owner(fd);
  const int on = 1;
  setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof(on));
  std::vector<char> block(4096);  // most connections of a run are idle ones
  request_t request;
  while (recv(fd, &request, sizeof(request), MSG_WAITALL) == sizeof(request)) {
    const uint64_t most = std::max(request.up, request.down);
    if (most > block.size()) block.resize(std::min(most, kBlockBytes));
    if (!ReceiveBytes(fd, block, request.up) ||
        !SendBytes(fd, block, request.down)) {
      return;
    }
  }
}

void EchoDatagrams(int fd) {
  std::vector<char> block(65536);
  while (true) {
    sockaddr_in from = {};
    socklen_t length = sizeof(from);
    const ssize_t got = recvfrom(fd, block.data(), block.size(), 0,
                                 reinterpret_cast<sockaddr*>(&from), &length);
    if (got < 0) continue;
    sendto(fd, block.data(), static_cast<size_t>(got), 0,
           reinterpret_cast<const sockaddr*>(&from), length);
  }
}

// Runs |serve| with |fd| in a thread that nobody waits for.
// std::thread::detach() is no way to have one: a thread that ends just then has
// freed what glibc 2.36 still reads.
template <void (*serve)(int fd)>
void StartServing(int fd) {
  pthread_attr_t detached;
  pthread_attr_init(&detached);
  pthread_attr_setdetachstate(&detached, PTHREAD_CREATE_DETACHED);
  const auto run = [](void* argument) -> void* {
    serve(static_cast<int>(reinterpret_cast<intptr_t>(argument)));
    return nullptr;
  };
  pthread_t thread;
  const int error = pthread_create(&thread, &detached, run,
                                   reinterpret_cast<void*>(intptr_t{fd}));
  pthread_attr_destroy(&detached);
  if (error != 0) throw std::runtime_error("no thread for a connection");
}

void Serve(const options_t& options) {
  const int listener = OpenServer(options, SOCK_STREAM);
  StartServing<EchoDatagrams>(OpenServer(options, SOCK_DGRAM));
  std::cout << "ready" << std::endl;
  while (true) {
    const int fd = accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
    if (fd != -1) StartServing<ServeConnection>(fd);
  }
}

// One exchange on |connection|, which it opens when need be.
bool Exchange(const options_t& options, Descriptor* connection,
              std::vector<char>& block) {
  if (!connection->IsOpen() || options.is_new) {
    connection->Reset(Connect(options, SOCK_STREAM, {kGiveUpSeconds, 0}));
  }
  const request_t& request = options.request;
  // Request and body in one call where they are small, as clients do it.
  memcpy(block.data(), &request, sizeof(request));
  const uint64_t first =
      std::min<uint64_t>(request.up, block.size() - sizeof(request));
  return connection->IsOpen() &&
         SendBytes(connection->Get(), block, sizeof(request) + first) &&
         SendBytes(connection->Get(), block, request.up - first) &&
         ReceiveBytes(connection->Get(), block, request.down);
}

// One datagram and its answer.
bool Query(const options_t& options, Descriptor* connection,
           std::vector<char>& block) {
  if (!connection->IsOpen()) {
    connection->Reset(Connect(options, SOCK_DGRAM, {0, kLostMs * 1000}));
  }
  const int fd = connection->Get();
  return send(fd, block.data(), options.request.up, 0) != -1 &&
         recv(fd, block.data(), block.size(), 0) ==
             static_cast<ssize_t>(options.request.up);
}

using Action = bool (*)(const options_t&, Descriptor*, std::vector<char>&);

bool IsOver(const options_t& options, const tally_t& tally,
            Clock::time_point end) {
  if (options.exchanges == 0) return Clock::now() >= end;
  return tally.exchanges + tally.failures >= options.exchanges;
}

// On |connection|, which may be closed still.
tally_t RunClient(const options_t& options, Action action,
                  Descriptor* connection, Clock::time_point end) {
  tally_t tally;
  const uint64_t most = std::max(options.request.up, options.request.down);
  std::vector<char> block(
      std::clamp<uint64_t>(most + sizeof(request_t), 4096, kBlockBytes));
  do {
    const auto begin = Clock::now();
    if (action(options, connection, block)) {
      ++tally.exchanges;
      const std::chrono::duration<float, std::micro> took =
          Clock::now() - begin;
      if (tally.samples_us.size() < kMaxSamples) {
        tally.samples_us.push_back(took.count());
      }
    } else {
      ++tally.failures;
      connection->Reset(-1);
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(options.pause_ms));
  } while (!IsOver(options, tally, end));
  return tally;
}

// Connections for all clients, opened one after the other, each with an
// exchange of one byte: not even a short accept queue keeps one waiting. Throws
// when one cannot be had.
std::vector<std::unique_ptr<Descriptor>> Connect(const options_t& options) {
  options_t first = options;
  first.request = {0, 1};
  std::vector<char> block(4096);
  std::vector<std::unique_ptr<Descriptor>> connections;
  for (uint32_t i = 0; i < options.clients; ++i) {
    connections.push_back(std::make_unique<Descriptor>(-1));
    if (!Exchange(first, connections.back().get(), block)) {
      throw std::runtime_error("connection " + std::to_string(i) + " failed");
    }
  }
  return connections;
}

// Says that all is ready and waits for a line of input, or for its end.
void WaitForStart() {
  std::cout << "ready" << std::endl;
  std::string line;
  std::getline(std::cin, line);
}

// Puts all clients to work at the same time, on |connections|, and prints what
// they have seen.
void Run(const options_t& options, Action action,
         const std::vector<std::unique_ptr<Descriptor>>& connections) {
  WaitForStart();
  const auto begin = Clock::now();
  const auto end = begin + std::chrono::duration_cast<Clock::duration>(
                               std::chrono::duration<double>(options.seconds));
  std::vector<tally_t> tallies(connections.size());
  std::vector<std::thread> threads;
  threads.reserve(options.clients);
  for (size_t i = 0; i < connections.size(); ++i) {
    threads.emplace_back([&, i] {
      tallies[i] = RunClient(options, action, connections[i].get(), end);
    });
  }
  for (std::thread& thread : threads) thread.join();
  const std::chrono::duration<double> took = Clock::now() - begin;

  tally_t all;
  for (const tally_t& tally : tallies) {
    all.exchanges += tally.exchanges;
    all.failures += tally.failures;
    all.samples_us.insert(all.samples_us.end(), tally.samples_us.begin(),
                          tally.samples_us.end());
  }
  std::sort(all.samples_us.begin(), all.samples_us.end());
  const auto at = [&all](double share) {
    const size_t count = all.samples_us.size();
    if (count == 0) return 0.0F;
    return all.samples_us[static_cast<size_t>(share *
                                              static_cast<double>(count - 1))];
  };
  std::cout << json{{"seconds", took.count()},  {"exchanges", all.exchanges},
                    {"failures", all.failures}, {"median_us", at(0.5)},
                    {"p99_us", at(0.99)},       {"max_us", at(1)}}
            << std::endl;
}

// Closed ones, for clients that open theirs themselves.
std::vector<std::unique_ptr<Descriptor>> MakeClosed(const options_t& options) {
  std::vector<std::unique_ptr<Descriptor>> connections(options.clients);
  for (auto& connection : connections) {
    connection = std::make_unique<Descriptor>(-1);
  }
  return connections;
}

// Holds idle connections until a line of input, or its end.
void Hold(const options_t& options) {
  const auto connections = Connect(options);
  WaitForStart();
}

}  // namespace

int main(int argc, char** argv) try {
  CLI::App app("Both ends of the end-to-end measurements.");
  options_t options;
  app.add_option("--address", options.address, "The server's address");
  app.add_option("--port", options.port, "Its TCP and UDP port");
  app.add_option("--clients", options.clients, "How many at once");
  app.add_option("--up", options.request.up, "Bytes of a request");
  app.add_option("--down", options.request.down, "Bytes of an answer");
  app.add_option("--seconds", options.seconds, "0: one exchange per client");
  app.add_option("--exchanges", options.exchanges,
                 "Of each client, in place of --seconds");
  app.add_option("--pause", options.pause_ms, "Milliseconds after each");
  app.add_flag("--new", options.is_new, "A new connection for each exchange");
  app.require_subcommand(1);
  app.fallthrough();  // options stand after the subcommand
  app.add_subcommand("serve", "Answer until killed")->callback([&] {
    Serve(options);
  });
  app.add_subcommand("run", "Exchanges on connections that stand already")
      ->callback([&] { Run(options, Exchange, Connect(options)); });
  app.add_subcommand("open", "Exchanges, connecting is part of the first")
      ->callback([&] { Run(options, Exchange, MakeClosed(options)); });
  app.add_subcommand("query", "Datagrams, each answered by the same")
      ->callback([&] { Run(options, Query, MakeClosed(options)); });
  app.add_subcommand("hold", "Idle connections until there is a line of input")
      ->callback([&] { Hold(options); });
  // Thousands of connections on both ends.
  rlimit limit = {};
  getrlimit(RLIMIT_NOFILE, &limit);
  limit.rlim_cur = limit.rlim_max;
  setrlimit(RLIMIT_NOFILE, &limit);
  CLI11_PARSE(app, argc, argv);
  return 0;
} catch (const std::exception& fault) {
  std::cerr << "load: " << fault.what() << std::endl;
  return 1;
}
