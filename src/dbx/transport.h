// One curl multi handle driven by one I/O thread: every request of a client goes through here.
// Connections stay open between requests (keep-alive, HTTP/2 multiplexing where the server
// offers it); TLS peers are always verified; redirects are never followed; answers are capped in
// size. Completions run on the I/O thread and must be short: they decode and hand off.
#pragma once

#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "dbx/client_config.h"
#include "dbx/http_response.h"

namespace wdc::dbx {

struct HttpRequest {
  std::string url;
  // Complete header lines, "Name: value". Never logged (they carry the token).
  std::vector<std::string> headers;
  // POST body; may be empty (sent with Content-Length: 0).
  std::string body;
  // A success answer's body goes to this scratch file instead of memory (error bodies always go
  // to memory). The transport creates and truncates it.
  std::optional<std::filesystem::path> bodyFile;
  // Largest answer accepted; past it the request fails with kURLErrorDataLengthExceedsMaximum.
  uint64_t maxResponseBytes = 0;
  // Bytes of the request body sent so far, and in all (from the I/O thread). May be empty.
  std::function<void(uint64_t sent, uint64_t total)> uploadProgress;
  // What the logs call the request (a route name; never a URL with secrets).
  std::string label;
};

class Transport {
 public:
  using Completion = std::function<void(HttpResponse)>;

  // Starts the I/O thread.
  explicit Transport(const DBClientConfig& config);
  // Closes (see close()).
  ~Transport();
  Transport(const Transport&) = delete;
  Transport& operator=(const Transport&) = delete;

  // Queues `request`; `completion` runs once on the I/O thread. Returns an id for cancel(). After
  // close(), completes at once (on the calling thread) with kURLErrorCancelled.
  uint64_t submit(HttpRequest request, Completion completion);
  // Ends request `id` with kURLErrorCancelled if it is still running; otherwise nothing.
  void cancel(uint64_t id);
  // Cancels everything in flight, closes every connection and joins the I/O thread. Idempotent.
  // Called on the I/O thread itself (from a completion), it only asks the thread to finish.
  void close();
  [[nodiscard]] bool isClosed() const;
  // True when the calling thread is this transport's I/O thread.
  [[nodiscard]] bool onIOThread() const;

 private:
  struct Impl;
  // Shared with the I/O thread, which may outlive this object when the last owner lets go from
  // inside a completion.
  std::shared_ptr<Impl> impl_;
};

}  // namespace wdc::dbx
