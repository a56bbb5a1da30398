#include "emulator/listener.h"

#include <arpa/inet.h>
#include <dirent.h>
#include <httplib.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <openssl/ssl.h>
#include <signal.h>
#include <sys/socket.h>

#include <atomic>
#include <thread>

#include "emulator/certificate.h"
#include "emulator/emulator_impl.h"

namespace wdc::emu {
namespace {

// Idle keep-alive connections each hold a worker, so the pool must exceed the clients' total.
constexpr size_t kWorkers = 48;

uint16_t localPortOf(int fd, bool* connected) {
  sockaddr_in local{};
  socklen_t length = sizeof local;
  if (getsockname(fd, reinterpret_cast<sockaddr*>(&local), &length) != 0 ||
      local.sin_family != AF_INET) {
    return 0;
  }
  sockaddr_in peer{};
  length = sizeof peer;
  *connected = getpeername(fd, reinterpret_cast<sockaddr*>(&peer), &length) == 0;
  return ntohs(local.sin_port);
}

uint16_t peerPortOf(int fd) {
  sockaddr_in peer{};
  socklen_t length = sizeof peer;
  if (getpeername(fd, reinterpret_cast<sockaddr*>(&peer), &length) != 0) return 0;
  return ntohs(peer.sin_port);
}

// Calls `visit` for each socket of this process whose local port is `port`: the accepted
// (connected) ones, or with `connected` false the listening one. cpp-httplib does not hand its
// sockets out, so they are found among our descriptors.
template <typename Visit>
void forEachSocketOnPort(uint16_t port, bool connected, Visit visit) {
  DIR* dir = opendir("/proc/self/fd");
  if (dir == nullptr) return;
  const int own = dirfd(dir);
  while (const dirent* item = readdir(dir)) {
    char* end = nullptr;
    const long fd = std::strtol(item->d_name, &end, 10);
    if (end == item->d_name || *end != '\0' || fd == own) continue;
    bool isConnected = false;
    if (localPortOf(static_cast<int>(fd), &isConnected) == port && isConnected == connected) {
      if (!visit(static_cast<int>(fd))) break;
    }
  }
  closedir(dir);
}

template <typename Visit>
void forEachConnection(uint16_t port, Visit visit) {
  forEachSocketOnPort(port, /*connected=*/true, visit);
}

// cpp-httplib listens with a backlog of 5, so a client opening many connections at once (the
// batch upload's sessions) has SYNs dropped and waits out the 1 s retransmission. Listening again
// on the bound socket raises the backlog.
void widenListenBacklog(uint16_t port) {
  forEachSocketOnPort(port, /*connected=*/false, [](int fd) {
    ::listen(fd, SOMAXCONN);
    return true;
  });
}

void dropConnection(const httplib::Request& request, uint16_t port) {
  if (request.ssl != nullptr) {
    shutdown(SSL_get_fd(request.ssl), SHUT_RDWR);
    return;
  }
  forEachConnection(port, [&](int fd) {
    if (peerPortOf(fd) != request.remote_port) return true;
    shutdown(fd, SHUT_RDWR);
    return false;
  });
}

}  // namespace

struct Listener::State {
  std::optional<SelfSignedCertificate> certificate;
  std::unique_ptr<httplib::Server> server;
  std::thread thread;
  uint16_t port = 0;
  std::atomic<uint64_t> requestIds{0};
};

Listener::Listener(Emulator::Impl& impl) : impl_(impl), state_(std::make_unique<State>()) {}

Listener::~Listener() { stop(); }

bool Listener::start(bool tls, uint16_t port, std::string* error) {
  if (state_->server) return true;
  // A dropped connection makes the next write on it fail; that must not kill the process.
  signal(SIGPIPE, SIG_IGN);
  if (tls) {
    if (!state_->certificate) {
      state_->certificate = SelfSignedCertificate::generate(error);
      if (!state_->certificate) return false;
    }
    state_->server = std::make_unique<httplib::SSLServer>(state_->certificate->certificate(),
                                                          state_->certificate->privateKey());
  } else {
    state_->server = std::make_unique<httplib::Server>();
  }
  httplib::Server& server = *state_->server;
  if (!server.is_valid()) {
    if (error) *error = "cannot set up the emulator's server";
    state_->server.reset();
    return false;
  }
  server.new_task_queue = [] { return new httplib::ThreadPool(kWorkers); };
  // Accepted sockets inherit TCP_NODELAY from the listening one; without it a keep-alive client
  // waits out the 40 ms delayed-ACK/Nagle stall on every request.
  server.set_socket_options([](socket_t sock) {
    int one = 1;
    setsockopt(sock, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
    setsockopt(sock, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
  });
  server.set_keep_alive_max_count(1'000'000);
  server.set_keep_alive_timeout(5);
  server.set_read_timeout(10, 0);
  server.set_write_timeout(10, 0);

  auto respond = [this](const httplib::Request& request, httplib::Response& response,
                        Exchange& exchange) {
    exchange.method = request.method;
    exchange.route =
        request.path.rfind("/2/", 0) == 0 ? request.path.substr(3) : request.path.substr(1);
    if (request.has_header("Content-Type")) {
      exchange.contentType = request.get_header_value("Content-Type");
    }
    exchange.authorization = request.get_header_value("Authorization");
    for (const auto& [name, value] : request.params) exchange.query[name] = value;
    if (exchange.authorization.empty() && request.has_param("authorization")) {
      exchange.authorization = "Bearer " + request.get_param_value("authorization");
    }
    if (request.has_header("Dropbox-API-Arg")) {
      exchange.apiArg = request.get_header_value("Dropbox-API-Arg");
    } else if (request.has_param("arg")) {
      exchange.apiArg = request.get_param_value("arg");
    }
    const std::optional<FaultKind> transportFault = impl_.serve(exchange);
    if (!request.ranges.empty() && exchange.status == 200) {
      // cpp-httplib cuts the body to the range itself; only files/download offers ranges.
      if (exchange.route == "files/download") {
        exchange.status = 206;
      } else {
        exchange.replyHeaders.clear();
        exchange.replyBadInput("HTTP header \"Range\" is not supported by this route.");
      }
    }
    response.status = exchange.status;
    response.set_header("X-Dropbox-Request-Id", "emu" + std::to_string(++state_->requestIds));
    for (const auto& [name, value] : exchange.replyHeaders) response.set_header(name, value);
    if (transportFault == FaultKind::kDrop) {
      dropConnection(request, state_->port);
      return;
    }
    if (transportFault == FaultKind::kTruncate) {
      auto body = std::make_shared<std::string>(std::move(exchange.replyBody));
      response.set_content_provider(
          body->size(), exchange.replyType, [body](size_t, size_t, httplib::DataSink& sink) {
            sink.write(body->data(), body->size() / 2);
            return false;  // cpp-httplib closes the connection when a provider gives up
          });
      return;
    }
    response.set_content(exchange.replyBody, exchange.replyType);
  };

  // A content-reader handler runs before cpp-httplib reads the body, so a bodiless POST without
  // Content-Length is taken as empty here instead of waiting out the read timeout.
  server.Post(R"(/.*)", [respond](const httplib::Request& request, httplib::Response& response,
                                  const httplib::ContentReader& reader) {
    Exchange exchange;
    const bool hasBody =
        request.has_header("Content-Length") ||
        request.get_header_value("Transfer-Encoding").find("chunked") != std::string::npos;
    if (hasBody) {
      reader([&](const char* data, size_t length) {
        exchange.body.append(data, length);
        return true;
      });
    }
    respond(request, response, exchange);
  });
  server.Get(R"(/.*)", [respond](const httplib::Request& request, httplib::Response& response) {
    Exchange exchange;
    respond(request, response, exchange);
  });

  const int bound = port == 0 ? server.bind_to_any_port("127.0.0.1")
                              : (server.bind_to_port("127.0.0.1", port) ? port : -1);
  if (bound <= 0) {
    if (error) *error = "cannot listen on 127.0.0.1:" + std::to_string(port);
    state_->server.reset();
    return false;
  }
  state_->port = static_cast<uint16_t>(bound);
  widenListenBacklog(state_->port);
  auto finished = std::make_shared<std::atomic<bool>>(false);
  state_->thread = std::thread([&server, finished] {
    server.listen_after_bind();
    *finished = true;
  });
  // stop() only takes effect once the loop runs; wait for it so a quick stop cannot be lost.
  while (!server.is_running() && !*finished) std::this_thread::yield();
  return true;
}

void Listener::stop() {
  if (!state_->server) return;
  state_->server->stop();
  // Idle keep-alive connections would otherwise hold their workers for the keep-alive timeout.
  forEachConnection(state_->port, [](int fd) {
    shutdown(fd, SHUT_RDWR);
    return true;
  });
  if (state_->thread.joinable()) state_->thread.join();
  state_->server.reset();
}

bool Listener::running() const { return state_->server && state_->server->is_running(); }

uint16_t Listener::port() const { return state_->port; }

std::string Listener::certificatePem() const {
  return state_->certificate ? state_->certificate->pem() : std::string();
}

}  // namespace wdc::emu
