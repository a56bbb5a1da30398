// The machinery behind an authorized client: the transport, the current token and its refresh,
// and the typed glue that turns a route call into a task. Route files build a RouteCall and call
// invoke<Result, RouteError>(); everything else happens here.
#pragma once

#include <atomic>
#include <filesystem>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <system_error>
#include <type_traits>
#include <vector>

#include "dbx/client_config.h"
#include "dbx/http_response.h"
#include "dbx/json_codec.h"
#include "dbx/task.h"
#include "dbx/token_store.h"
#include "dbx/transport.h"

namespace wdc::dbx::detail {

// kNotify serves only files/list_folder/longpoll, which carries no authorization.
enum class RouteHost { kApi, kContent, kNotify };
enum class RouteAuth { kUser, kApp, kNone };

struct RouteCall {
  std::string route;  // "files/list_folder"
  RouteHost host = RouteHost::kApi;
  RouteStyle style = RouteStyle::kRpc;
  RouteAuth auth = RouteAuth::kUser;
  // RPC: the body ("null" for Void arguments is not used: an empty body is sent instead).
  // Upload and download: the Dropbox-API-Arg header value (header-safe JSON).
  std::string argument;
  std::string uploadBody;
  // Downloads to a file: the destination, written only once the whole answer has arrived.
  std::optional<std::filesystem::path> destination;
  bool overwrite = true;
  // Downloads: check the body against the "content_hash" of the answer's metadata; a mismatch
  // becomes a lost-connection request error, which callers retry.
  bool verifyContentHash = false;
  // App-authenticated calls: "key:secret" for the Basic header.
  std::string appCredentials;
  std::function<void(uint64_t, uint64_t)> uploadProgress;
};

// A finished exchange before typing: the classified answer, plus the body (downloads into
// memory) or the scratch file (downloads to a file) of a success.
struct RawOutcome {
  ClassifiedResponse classified;
  std::string body;
  std::optional<std::filesystem::path> bodyFile;
};

// Tracks one logical call across a token refresh and a resend, so cancel() reaches whichever
// exchange is current.
struct CallHandle {
  std::mutex mutex;
  uint64_t transferId = 0;
  bool cancelled = false;
};

class ClientCore : public std::enable_shared_from_this<ClientCore> {
 public:
  ClientCore(DBClientConfig config, DBOAuth2Token token,
             std::optional<std::filesystem::path> tokenStore);
  ~ClientCore();

  // Sends `call` (refreshing the token first if it is about to expire, and once more after a
  // 401 expired_access_token) and runs `done` on the I/O thread with the outcome.
  void send(RouteCall call, std::shared_ptr<CallHandle> handle,
            std::function<void(RawOutcome)> done);
  void cancel(const std::shared_ptr<CallHandle>& handle);

  void close();
  [[nodiscard]] bool isClosed() const;
  [[nodiscard]] bool isAuthorized() const;
  [[nodiscard]] DBOAuth2Token token() const;
  [[nodiscard]] const DBClientConfig& config() const { return config_; }
  [[nodiscard]] Transport& transport() { return transport_; }

 private:
  void sendWithToken(RouteCall call, std::shared_ptr<CallHandle> handle,
                     std::function<void(RawOutcome)> done, bool mayRefresh);
  // Runs `then` with a fresh access token, or with the refresh's request error.
  void refreshToken(std::function<void(std::optional<DBRequestError>)> then);
  HttpRequest buildRequest(const RouteCall& call, const std::string& accessToken) const;

  const DBClientConfig config_;
  const std::optional<std::filesystem::path> tokenStore_;
  Transport transport_;
  mutable std::mutex mutex_;
  DBOAuth2Token token_;  // guarded by mutex_
  bool refreshing_ = false;  // guarded by mutex_
  std::vector<std::function<void(std::optional<DBRequestError>)>> refreshWaiters_;  // mutex_
  std::atomic<uint64_t> scratchCounter_{0};
};

// Types the raw outcome: decodes the result or route error into the task's types; anything that
// does not decode becomes a kURLErrorCannotParseResponse request error (a route error that does
// not decode, an HTTP error carrying its error_summary).
template <typename Result, typename RouteError>
void typeOutcome(const RawOutcome& raw, std::optional<Result>& result,
                 std::optional<RouteError>& routeError,
                 std::optional<DBRequestError>& requestError) {
  const auto& c = raw.classified;
  switch (c.kind) {
    case ClassifiedResponse::Kind::kResult:
      if constexpr (std::is_same_v<Result, DBVoid>) {
        result = DBVoid{};
        return;
      } else {
        result = json::decodeAs<Result>(c.value);
        if (!result) {
          requestError = DBRequestError::transport(kURLErrorCannotParseResponse,
                                                   "result does not have the published shape");
          requestError->statusCode = 200;
        }
        return;
      }
    case ClassifiedResponse::Kind::kRouteError:
      if constexpr (!std::is_same_v<RouteError, DBVoid>) {
        routeError = json::decodeAs<RouteError>(c.value);
        if (routeError) return;
      }
      requestError = DBRequestError{};
      requestError->kind = DBRequestError::Kind::kHttp;
      requestError->statusCode = 409;
      requestError->errorContent = c.errorSummary;
      requestError->message = "route error does not have the published shape";
      return;
    case ClassifiedResponse::Kind::kRequestError:
      requestError = c.requestError;
      return;
  }
}

// A download whose body does not hash to the content hash its metadata states was damaged on
// the way: it becomes a lost connection (retryable), and its scratch file goes. Other outcomes,
// and results that state no hash, are left as they are.
void checkContentHash(RawOutcome& raw, const std::string& route);

// Moves a finished download's scratch file onto its destination; false when that fails.
bool placeDownload(const std::filesystem::path& scratch, const std::filesystem::path& destination,
                   std::error_code& error);

// Route call → task. Extra is empty (RPC/upload), a path (download to file) or a string
// (download into memory).
template <typename Result, typename RouteError, typename... Extra>
DBTask<Result, RouteError, Extra...> invoke(const std::shared_ptr<ClientCore>& core,
                                            RouteCall call) {
  using Task = DBTask<Result, RouteError, Extra...>;
  auto state = std::make_shared<typename Task::State>();
  auto handle = std::make_shared<CallHandle>();
  std::weak_ptr<ClientCore> weak = core;
  state->setCanceller([weak, handle] {
    if (auto strong = weak.lock()) strong->cancel(handle);
  });
  std::optional<std::filesystem::path> destination = call.destination;
  core->send(std::move(call), handle, [state, destination](RawOutcome raw) {
    detail::Outcome<Result, RouteError, Extra...> outcome;
    typeOutcome<Result, RouteError>(raw, outcome.result, outcome.routeError,
                                    outcome.requestError);
    if constexpr (sizeof...(Extra) == 1) {
      using ExtraT = std::tuple_element_t<0, std::tuple<Extra...>>;
      if constexpr (std::is_same_v<ExtraT, std::filesystem::path>) {
        std::get<0>(outcome.extra) = destination.value_or(std::filesystem::path());
        if (raw.bodyFile) {
          std::error_code error;
          if (outcome.result && !placeDownload(*raw.bodyFile, *destination, error)) {
            outcome.result.reset();
            outcome.requestError =
                DBRequestError::transport(kURLErrorCannotCreateFile, error.message());
          }
          if (!outcome.result) std::filesystem::remove(*raw.bodyFile, error);
        }
      } else {
        if (outcome.result) std::get<0>(outcome.extra) = raw.body;
      }
    }
    state->complete(std::move(outcome));
  });
  return Task(state);
}

// An OperationQueue that runs each operation at once on the adding thread. Used to chain
// internal requests from the I/O thread without a hop.
class InlineQueue final : public OperationQueue {
 public:
  void addOperation(std::function<void()> operation) override { operation(); }
  void waitUntilAllOperationsAreFinished() override {}
  [[nodiscard]] bool isCurrentQueue() const override { return false; }
};
std::shared_ptr<OperationQueue> inlineQueue();

}  // namespace wdc::dbx::detail
