// A loopback server speaking the Dropbox HTTP API v2, for tests and benchmarks.
//
// One listener on 127.0.0.1 serves the api routes, the content routes and oauth2/token, over plain
// HTTP or over TLS with a self-signed certificate made at the first start and kept across
// restarts (so is the port, when it was picked freely). The store lives in memory
// (optionally mirrored to a directory); a change journal backs list_folder cursors. Faults can be
// injected per route or for every route ("*"), by probability with a seed or for the next N
// matching requests, and every request is counted per route so a test can assert what was asked.
//
// Typical use in a test:
//
//   wdc::emu::Emulator emulator({.tls = true, .token = "T"});
//   ASSERT_TRUE(emulator.start());
//   emulator.putFile("/Notes/a.txt", "hello");
//   emulator.addFault(wdc::emu::FaultRule{.route = "files/download",
//                                         .kind = wdc::emu::FaultKind::kTooManyRequests,
//                                         .argument = 2, .count = 3});
//   ... point a client at emulator.baseUrl(), trusting emulator.certificatePem() ...
//   EXPECT_EQ(emulator.requestCount("files/download"), 4u);
#pragma once

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace wdc {
class Env;
}

namespace wdc::emu {

// What a fault does to a matching request.
enum class FaultKind {
  kTooManyRequests,         // 429, reason too_many_requests ("429")
  kTooManyWriteOperations,  // 429, reason too_many_write_operations ("429w")
  kInternalError,           // 500 with an empty text body ("500")
  kUnavailable,             // 503 with an empty text body ("503")
  kDrop,                    // the connection is closed without any answer ("drop")
  kTruncate,                // a normal answer whose body stops half way, then EOF ("truncate")
  kCorrupt,       // a normal answer with bytes of its body flipped, length kept ("corrupt")
  kReset,         // list_folder/continue answers 409 reset ("reset")
  kLatency,       // the answer is delayed by `argument` ms, then served ("latency")
  kTooManyFiles,  // 409 route error too_many_files ("toomanyfiles")
};

// Where a 429 states its back-off. Dropbox sends both; clients must cope with less.
enum class RetryAfterPlacement {
  kHeaderAndBody,  // Retry-After header and the body's retry_after (ARG "2")
  kHeaderOnly,     // Retry-After header and a plain-text body naming the reason (ARG "2h")
  kBodyOnly,       // body's retry_after only, no header (ARG "2b")
  kNone,           // neither: a bare JSON 429 (no ARG)
};

// One injected fault. Rules are tried in the order they were added; the first rule that matches
// the route and wins its probability draw applies (latency rules add up and never stop the search).
struct FaultRule {
  // Route without the leading "/2/" (e.g. "files/download", "oauth2/token"), or "*" for every one.
  std::string route = "*";
  FaultKind kind = FaultKind::kInternalError;
  // Retry-After seconds for the 429 kinds; added milliseconds for kLatency; unused otherwise.
  // Absent for a 429 means no back-off is stated anywhere.
  std::optional<uint32_t> argument{};
  RetryAfterPlacement placement = RetryAfterPlacement::kHeaderAndBody;
  // Chance per matching request, 0..1. Draws come from a generator seeded with
  // EmulatorOptions::faultSeed, so a run is reproducible.
  double probability = 1.0;
  // Scripted count: the rule applies to the next `count` matching requests, then retires.
  // Absent: it stays until clearFaults().
  std::optional<uint64_t> count{};
};

// Two pseudo-routes reach single entries of a batch commit instead of requests: a 429w rule on
// "files/upload_session/finish_batch/entry" or "files/delete_batch/entry" makes the entries it
// hits fail with too_many_write_operations inside an otherwise complete result, and a
// toomanyfiles rule on "files/delete_batch/entry" makes them fail with too_many_files ("*" rules
// never apply to entries). A 429w rule on "files/delete_batch/job" makes the next delete job it
// hits answer failed (too_many_write_operations) when polled, deleting nothing.
//
// Parses `ROUTE:KIND[:ARG][@P][#N]`, e.g. "*:429:1@0.1", "files/download:drop@0.05",
// "files/download:429:2#3" (the next three downloads answer 429 with Retry-After 2),
// "files/upload:429" (a 429 that states no back-off), "files/upload:429:2b" (body only).
// KIND is one of 429, 429w, 500, 503, drop, truncate, corrupt, reset, latency (latency needs
// ARG), toomanyfiles.
// Returns nullopt and, when `error` is non-null, a reason when the text is not such a rule.
[[nodiscard]] std::optional<FaultRule> parseFaultRule(std::string_view text,
                                                      std::string* error = nullptr);
// The KIND a rule names `kind` by ("429", "drop", ...).
[[nodiscard]] std::string_view faultKindName(FaultKind kind);

struct EmulatorOptions {
  // Serve HTTPS with a self-signed certificate for IP:127.0.0.1 and DNS:localhost.
  bool tls = false;
  // The only bearer token accepted (besides access tokens the emulator issued itself through
  // oauth2/token). Empty: any non-empty token is accepted.
  std::string token{};
  // 0 picks a free port.
  uint16_t port = 0;
  // When set, every file and folder is also written below this directory (created if missing);
  // the in-memory state stays authoritative.
  std::optional<std::filesystem::path> mirrorDirectory{};
  // Seed of the fault-probability generator.
  uint64_t faultSeed = 1;
  // Added to every request before it is answered.
  uint32_t latencyMs = 0;
  // download_zip refuses folders with more entries (the folder itself and subfolders count) or
  // more bytes than these. Dropbox's own limits are 10,000 entries and 20 GB.
  uint64_t zipMaxEntries = 10'000;
  uint64_t zipMaxBytes = 20ULL * 1000 * 1000 * 1000;
  // finish_batch/check and delete_batch/check answer in_progress this many times per job before
  // complete.
  uint32_t batchCheckPolls = 1;
  // delete_batch runs the batch at once and answers complete instead of a job id (Dropbox may).
  bool deleteBatchCompletesAtOnce = false;
  // How long a written file takes to show up in search results. Dropbox indexes new files after
  // a few seconds; 0 makes them searchable at once. Measured on the Env's wall clock against the
  // file's server-modified time.
  std::chrono::milliseconds searchIndexDelay{0};
  // Lifetime of the access tokens oauth2/token hands out.
  std::chrono::seconds accessTokenLifetime{14'400};
  // App key and secret for oauth2/token and auth/token/from_oauth1 (Basic auth). Empty: any.
  std::string appKey{};
  std::string appSecret{};
  // Clock and sleeping; nullptr means Env::current() at each use. Must outlive the Emulator.
  Env* env = nullptr;
};

// What the store holds at one path, for tests.
struct EntryInfo {
  std::string pathDisplay{};
  bool isFolder = false;
  std::string id{};
  std::string rev{};                                       // files only
  std::string contentHash{};                               // files only
  uint64_t size = 0;                                       // files only
  std::chrono::system_clock::time_point clientModified{};  // files only
  std::chrono::system_clock::time_point serverModified{};  // files only
};

// Owns the listener, its worker threads and the store. Any thread may call any method; state
// changes made directly are journaled like those made through the API.
class Emulator {
 public:
  explicit Emulator(EmulatorOptions options = {});
  ~Emulator();  // stops the server
  Emulator(const Emulator&) = delete;
  Emulator& operator=(const Emulator&) = delete;

  // Binds 127.0.0.1 (options.port, or a free one) and starts serving on worker threads.
  // Sets SIGPIPE to ignored for the process: a dropped connection must not end it.
  // Returns false and, when `error` is non-null, a reason when it cannot listen.
  [[nodiscard]] bool start(std::string* error = nullptr);
  // Stops accepting, closes every open connection (idle keep-alive ones too) and waits for the
  // workers. Quick; safe to call twice. The store survives a stop; start() serves it again.
  void stop();
  [[nodiscard]] bool running() const;

  // The port bound by start(); 0 before.
  [[nodiscard]] uint16_t port() const;
  // "http://127.0.0.1:PORT" or "https://127.0.0.1:PORT": base of /2/... and /oauth2/token.
  [[nodiscard]] std::string baseUrl() const;
  // "127.0.0.1:PORT", what DROPBOX_API_HOST and DROPBOX_API_CONTENT_HOST take.
  [[nodiscard]] std::string hostAndPort() const;
  // The self-signed certificate in PEM (empty without TLS). A client trusts it as its CA file.
  [[nodiscard]] std::string certificatePem() const;
  // Writes certificatePem() to `path`. Returns false and a reason on failure or without TLS.
  [[nodiscard]] bool writeCertificate(const std::filesystem::path& path,
                                      std::string* error = nullptr) const;

  // Faults.
  void addFault(FaultRule rule);
  void clearFaults();
  // Makes the next list_folder/continue call on every cursor issued so far answer reset.
  void invalidateCursors();

  // Requests received per route ("files/download", "oauth2/token", ...), counted before auth and
  // faults; "*" gives the total. Unknown routes count under their path too.
  [[nodiscard]] uint64_t requestCount(std::string_view route) const;
  void resetRequestCounts();
  // Called on a worker thread as each request arrives (before it is answered), with its route,
  // whether an injected rate-limit fault answers it, and the arrival time on the Env's uptime
  // clock (the clock the library's cooldown runs on). Set before start().
  using ArrivalObserver = std::function<void(std::string_view route, bool rateLimited,
                                             std::chrono::nanoseconds arrivalUptime)>;
  void setArrivalObserver(ArrivalObserver observer);
  // Called on the worker thread when a request's answer has been decided, just before it is
  // written (or the connection dropped), with its route and the Env's uptime. With the arrival
  // observer this brackets each request, so a test can count requests in flight. Set before
  // start().
  using DepartureObserver =
      std::function<void(std::string_view route, std::chrono::nanoseconds departureUptime)>;
  void setDepartureObserver(DepartureObserver observer);
  // Requests (and batch entries) each kind of injected fault has answered, by label
  // ("429 (Retry-After)", "429 (no Retry-After)", "500", "drop", "429w on batch entries", ...).
  [[nodiscard]] std::map<std::string, uint64_t> injectedFaultCounts() const;

  // Direct state access. Paths are display paths ("/Notes/a.txt"); missing parents are created.
  // putFile returns the new entry, or nullopt when a file sits where a folder is needed.
  std::optional<EntryInfo> putFile(
      std::string_view path, std::string_view contents,
      std::optional<std::chrono::system_clock::time_point> clientModified = std::nullopt);
  bool createFolder(std::string_view path);
  // From now on list_folder and list_folder/continue show the file at `path` without its
  // client_modified (which Dropbox always sends), so clients can test how they treat such an
  // entry. Other routes are unaffected.
  void omitClientModifiedInListings(std::string_view path);
  // Removes a file or a folder with everything below it; false when nothing is there.
  bool removePath(std::string_view path);
  [[nodiscard]] std::optional<std::string> readFile(std::string_view path) const;
  [[nodiscard]] std::optional<EntryInfo> lookup(std::string_view path) const;
  // Every live path below the root, display form, sorted by lower-cased path.
  [[nodiscard]] std::vector<std::string> listPaths() const;

  // The options of the same names, for jobs launched and ZIPs asked for from now on.
  void setBatchCheckPolls(uint32_t polls);
  void setDownloadZipLimits(uint64_t maxEntries, uint64_t maxBytes);

  // Tokens. Access tokens issued from now on by oauth2/token live this long.
  void setAccessTokenLifetime(std::chrono::seconds lifetime);
  // Every access token issued so far by oauth2/token is expired from now on (401
  // expired_access_token), as is options.token when `includeConfigured` is true.
  void expireAccessTokens(bool includeConfigured = false);
  // Refresh tokens oauth2/token accepts. None registered: any non-empty refresh token works.
  void addRefreshToken(std::string refreshToken);
  // A legacy OAuth 1 token pair auth/token/from_oauth1 converts; others answer
  // invalid_oauth1_token_info. The answer's token is accepted as a bearer token afterwards.
  void addOAuth1Token(std::string token, std::string secret);
  // Number of access tokens oauth2/token has issued.
  [[nodiscard]] uint64_t issuedAccessTokenCount() const;

  // The emulator's internals (emulator/emulator_impl.h); named here for its route handlers.
  struct Impl;

 private:
  std::unique_ptr<Impl> impl_;
};

}  // namespace wdc::emu
