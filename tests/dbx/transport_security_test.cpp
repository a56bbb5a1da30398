// What the transport refuses whatever it is told: a server whose certificate does not name the
// host it was asked for, and download files reached through links planted at their names.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <fstream>
#include <sstream>
#include <thread>
#include <vector>

#include "client_fixture.h"

namespace wdc::dbx::testing {
namespace {

// Forwards every TCP connection made to `listenAddress` (an ephemeral port) to 127.0.0.1:`port`,
// byte for byte: the TLS handshake passes through untouched, so the client sees the emulator's
// certificate while it connects to another address. Any 127.x.y.z address reaches the loopback
// device on Linux, which stands in for a DNS name the certificate does not list.
class TcpRelay {
 public:
  TcpRelay(const char* listenAddress, uint16_t targetPort) : targetPort_(targetPort) {
    listener_ = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    ::inet_pton(AF_INET, listenAddress, &address.sin_addr);
    socklen_t length = sizeof address;
    if (::bind(listener_, reinterpret_cast<sockaddr*>(&address), length) != 0 ||
        ::listen(listener_, 8) != 0 ||
        ::getsockname(listener_, reinterpret_cast<sockaddr*>(&address), &length) != 0) {
      ::close(listener_);
      listener_ = -1;
      return;
    }
    port_ = ntohs(address.sin_port);
    acceptor_ = std::thread([this] { acceptLoop(); });
  }
  ~TcpRelay() {
    stop_ = true;
    if (acceptor_.joinable()) acceptor_.join();
    for (auto& pump : pumps_) pump.join();
    if (listener_ >= 0) ::close(listener_);
  }
  TcpRelay(const TcpRelay&) = delete;
  TcpRelay& operator=(const TcpRelay&) = delete;

  [[nodiscard]] bool listening() const { return listener_ >= 0; }
  [[nodiscard]] uint16_t port() const { return port_; }

 private:
  void acceptLoop() {
    while (!stop_) {
      pollfd waiting{listener_, POLLIN, 0};
      if (::poll(&waiting, 1, 20) <= 0) continue;
      const int client = ::accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
      if (client < 0) continue;
      const int server = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
      sockaddr_in target{};
      target.sin_family = AF_INET;
      target.sin_port = htons(targetPort_);
      ::inet_pton(AF_INET, "127.0.0.1", &target.sin_addr);
      if (::connect(server, reinterpret_cast<sockaddr*>(&target), sizeof target) != 0) {
        ::close(server);
        ::close(client);
        continue;
      }
      pumps_.emplace_back([this, client, server] { pump(client, server); });
    }
  }
  // Copies both ways until either side closes (or the relay stops), then closes both.
  void pump(int a, int b) {
    char buffer[16384];
    while (!stop_) {
      pollfd ends[2] = {{a, POLLIN, 0}, {b, POLLIN, 0}};
      if (::poll(ends, 2, 20) <= 0) continue;
      bool closed = false;
      for (int i = 0; i < 2 && !closed; ++i) {
        if ((ends[i].revents & (POLLIN | POLLHUP | POLLERR)) == 0) continue;
        const ssize_t got = ::read(ends[i].fd, buffer, sizeof buffer);
        if (got <= 0) {
          closed = true;
          break;
        }
        const int to = i == 0 ? b : a;
        for (ssize_t sent = 0; sent < got;) {
          const ssize_t n = ::write(to, buffer + sent, static_cast<size_t>(got - sent));
          if (n <= 0) {
            closed = true;
            break;
          }
          sent += n;
        }
      }
      if (closed) break;
    }
    ::close(a);
    ::close(b);
  }

  uint16_t targetPort_;
  int listener_ = -1;
  uint16_t port_ = 0;
  std::atomic<bool> stop_{false};
  std::thread acceptor_;
  std::vector<std::thread> pumps_;  // touched by the acceptor thread only, joined after it
};

std::string readAll(const std::filesystem::path& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream out;
  out << in.rdbuf();
  return out.str();
}

TEST_F(DbxClientTest, TrustedCertificateForAnotherHostIsRefused) {
  // The same relay, reached by an address the certificate lists, must work: otherwise a refusal
  // below could come from the relay rather than from the host-name check.
  TcpRelay listed("127.0.0.1", emulator_.port());
  TcpRelay unlisted("127.0.0.2", emulator_.port());
  if (!unlisted.listening()) GTEST_SKIP() << "127.0.0.2 is not a loopback address here";
  ASSERT_TRUE(listed.listening());

  auto through = [&](const std::string& host, uint16_t port) {
    auto custom = config();
    custom.apiBaseUrl = "https://" + host + ":" + std::to_string(port);
    return await(makeClient(DBOAuth2Token{"", "T", std::nullopt, std::nullopt}, custom)
                     ->usersRoutes()
                     .getCurrentAccount());
  };
  auto accepted = through("127.0.0.1", listed.port());
  EXPECT_TRUE(accepted.result) << (accepted.error ? accepted.error->description() : "");
  auto byName = through("localhost", listed.port());
  EXPECT_TRUE(byName.result) << (byName.error ? byName.error->description() : "");

  const auto before = emulator_.requestCount("users/get_current_account");
  auto refused = through("127.0.0.2", unlisted.port());
  ASSERT_TRUE(refused.error);
  EXPECT_EQ(refused.nsCode(), kURLErrorServerCertificateUntrusted) << refused.error->description();
  EXPECT_EQ(emulator_.requestCount("users/get_current_account"), before);  // nothing was sent
}

TEST_F(DbxClientTest, AnUnreadableTrustFileFailsClosed) {
  auto custom = config();
  custom.caFile = dir_.path() / "no-such-ca.pem";
  auto answer = await(makeClient(DBOAuth2Token{"", "T", std::nullopt, std::nullopt}, custom)
                          ->usersRoutes()
                          .getCurrentAccount());
  ASSERT_TRUE(answer.error);
  EXPECT_NE(answer.nsCode(), 0);
  EXPECT_EQ(emulator_.requestCount("users/get_current_account"), 0u);
}

// Downloads land in a scratch file beside the destination and are renamed over it. Links planted
// at either name, the kind another local user leaves in a shared temporary directory, are
// replaced and never written through; what lands is readable by this user only.
TEST_F(DbxClientTest, DownloadsNeverWriteThroughPlantedLinks) {
  ASSERT_TRUE(emulator_.putFile("/tod/r.tod", "record bytes"));
  const auto victim = dir_.path() / "victim";
  std::ofstream(victim) << "precious";
  const auto destination = dir_.path() / "r.tod.gz";
  const auto zipDestination = dir_.path() / "WebDAVDropbox-1.zip";
  for (const auto& target : {destination, zipDestination}) {
    std::filesystem::create_symlink(victim, target);
    for (int i = 0; i < 16; ++i) {
      std::filesystem::create_symlink(victim, target.string() + ".part-" + std::to_string(i));
    }
  }

  auto file = await(files().downloadUrl("/tod/r.tod", true, destination));
  ASSERT_TRUE(file.result) << (file.error ? file.error->description() : "");
  auto zip = await(files().downloadZipUrl("/tod", true, zipDestination));
  ASSERT_TRUE(zip.result) << (zip.error ? zip.error->description() : "");

  EXPECT_EQ(readAll(victim), "precious");
  EXPECT_EQ(readAll(destination), "record bytes");
  EXPECT_EQ(readAll(zipDestination).substr(0, 2), "PK");
  for (const auto& target : {destination, zipDestination}) {
    SCOPED_TRACE(target.string());
    EXPECT_FALSE(std::filesystem::is_symlink(target));
    struct stat info {};
    ASSERT_EQ(::lstat(target.c_str(), &info), 0);
    EXPECT_EQ(info.st_mode & 0777, 0600u);
  }
}

}  // namespace
}  // namespace wdc::dbx::testing
