// The I/O thread owns the multi handle and every easy handle; other threads only queue work
// under the mutex and wake the thread with curl_multi_wakeup. Easy handles are reused (reset,
// not destroyed) so their TLS session caches survive between requests.
#include "dbx/transport.h"

#include <curl/curl.h>
#include <fcntl.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <deque>
#include <mutex>
#include <system_error>
#include <thread>
#include <unordered_map>

#include <fmt/format.h>

#include "platform/logger.h"

namespace wdc::dbx {
namespace {

// A download's file is a fresh scratch name beside its destination, often in the shared temporary
// directory: whatever sits there first is removed (a link itself, never what it points to), and
// the file is created anew, exclusively and readable by this user only.
std::FILE* createBodyFile(const std::filesystem::path& path) {
  ::unlink(path.c_str());
  const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600);
  if (fd < 0) return nullptr;
  std::FILE* file = ::fdopen(fd, "wb");
  if (file == nullptr) ::close(fd);
  return file;
}

struct GlobalInit {
  GlobalInit() { curl_global_init(CURL_GLOBAL_DEFAULT); }
};
void ensureCurlInitialized() { static GlobalInit once; }

struct Transfer {
  uint64_t id = 0;
  CURL* easy = nullptr;
  HttpRequest request;
  Transport::Completion completion;
  HttpResponse response;
  curl_slist* headerList = nullptr;
  char errorBuffer[CURL_ERROR_SIZE] = {};
  std::FILE* file = nullptr;
  bool statusKnown = false;
  bool writingFile = false;
  bool tooLarge = false;
  bool fileFailed = false;
  uint64_t received = 0;
  uint64_t memoryCap = 0;
};

std::string lowerCase(std::string_view text) {
  std::string out(text);
  for (char& c : out) {
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
  }
  return out;
}

size_t onHeader(char* data, size_t size, size_t count, void* user) {
  auto* t = static_cast<Transfer*>(user);
  std::string_view line(data, size * count);
  if (line.starts_with("HTTP/")) {
    // A new response begins (after an interim 1xx): forget the headers of the last one.
    t->response.headers.clear();
    t->statusKnown = false;
    return size * count;
  }
  auto colon = line.find(':');
  if (colon == std::string_view::npos) return size * count;
  std::string_view value = line.substr(colon + 1);
  while (!value.empty() && (value.front() == ' ' || value.front() == '\t')) value.remove_prefix(1);
  while (!value.empty() && (value.back() == '\r' || value.back() == '\n' || value.back() == ' ')) {
    value.remove_suffix(1);
  }
  t->response.headers[lowerCase(line.substr(0, colon))] = std::string(value);
  return size * count;
}

size_t onWrite(char* data, size_t size, size_t count, void* user) {
  auto* t = static_cast<Transfer*>(user);
  const size_t length = size * count;
  if (!t->statusKnown) {
    long status = 0;
    curl_easy_getinfo(t->easy, CURLINFO_RESPONSE_CODE, &status);
    t->statusKnown = true;
    t->writingFile = t->request.bodyFile && status >= 200 && status <= 299;
    if (t->writingFile && t->file == nullptr) {
      t->file = createBodyFile(*t->request.bodyFile);
      if (t->file == nullptr) {
        t->fileFailed = true;
        return 0;
      }
    }
  }
  t->received += length;
  if (t->received > t->request.maxResponseBytes ||
      (!t->writingFile && t->received > t->memoryCap)) {
    t->tooLarge = true;
    return 0;  // aborts the transfer
  }
  if (t->writingFile) {
    if (std::fwrite(data, 1, length, t->file) != length) {
      t->fileFailed = true;
      return 0;
    }
  } else {
    t->response.body.append(data, length);
  }
  return length;
}

int onProgress(void* user, curl_off_t, curl_off_t, curl_off_t uploadTotal, curl_off_t uploaded) {
  auto* t = static_cast<Transfer*>(user);
  if (t->request.uploadProgress && uploadTotal > 0) {
    t->request.uploadProgress(static_cast<uint64_t>(uploaded), static_cast<uint64_t>(uploadTotal));
  }
  return 0;
}

DBRequestError errorFor(const Transfer& t, CURLcode code) {
  std::string detail = t.errorBuffer[0] != '\0' ? t.errorBuffer : curl_easy_strerror(code);
  detail = fmt::format("{}: {}", t.request.label, detail);
  if (t.tooLarge || code == CURLE_FILESIZE_EXCEEDED) {
    return DBRequestError::transport(kURLErrorDataLengthExceedsMaximum, detail);
  }
  if (t.fileFailed) return DBRequestError::transport(kURLErrorCannotWriteToFile, detail);
  long osErrno = 0;
  curl_easy_getinfo(t.easy, CURLINFO_OS_ERRNO, &osErrno);
  switch (code) {
    case CURLE_OPERATION_TIMEDOUT:
      return DBRequestError::transport(kURLErrorTimedOut, detail);
    case CURLE_COULDNT_RESOLVE_HOST:
    case CURLE_COULDNT_RESOLVE_PROXY:
      return DBRequestError::transport(kURLErrorCannotFindHost, detail);
    case CURLE_COULDNT_CONNECT:
      if (osErrno == ENETUNREACH || osErrno == ENETDOWN) {
        return DBRequestError::transport(kURLErrorNotConnectedToInternet, detail);
      }
      return DBRequestError::transport(kURLErrorCannotConnectToHost, detail);
    case CURLE_SEND_ERROR:
    case CURLE_RECV_ERROR:
    case CURLE_GOT_NOTHING:
    case CURLE_PARTIAL_FILE:
    case CURLE_HTTP2:
    case CURLE_HTTP2_STREAM:
      return DBRequestError::transport(kURLErrorNetworkConnectionLost, detail);
    case CURLE_PEER_FAILED_VERIFICATION:
      return DBRequestError::transport(kURLErrorServerCertificateUntrusted, detail);
    case CURLE_SSL_CONNECT_ERROR:
    case CURLE_SSL_CERTPROBLEM:
    case CURLE_SSL_CIPHER:
    case CURLE_SSL_CACERT_BADFILE:
    case CURLE_SSL_ENGINE_NOTFOUND:
      return DBRequestError::transport(kURLErrorSecureConnectionFailed, detail);
    case CURLE_UNSUPPORTED_PROTOCOL:
    case CURLE_URL_MALFORMAT:
      return DBRequestError::transport(kURLErrorUnsupportedURL, detail);
    case CURLE_BAD_CONTENT_ENCODING:
      return DBRequestError::transport(kURLErrorCannotDecodeContentData, detail);
    case CURLE_WEIRD_SERVER_REPLY:
      return DBRequestError::transport(kURLErrorBadServerResponse, detail);
    case CURLE_ABORTED_BY_CALLBACK:
      return DBRequestError::transport(kURLErrorCancelled, detail);
    case CURLE_WRITE_ERROR:
      return DBRequestError::transport(kURLErrorCannotWriteToFile, detail);
    default:
      return DBRequestError::transport(kURLErrorUnknown, detail);
  }
}

}  // namespace

struct Transport::Impl {
  explicit Impl(const DBClientConfig& c) : config(c) {}

  DBClientConfig config;
  CURLM* multi = nullptr;
  std::thread thread;
  std::atomic<std::thread::id> threadId{};

  std::mutex mutex;
  std::deque<std::unique_ptr<Transfer>> pending;  // guarded by mutex
  std::vector<uint64_t> cancels;                  // guarded by mutex
  bool stopping = false;                          // guarded by mutex
  std::atomic<bool> closed{false};
  std::atomic<uint64_t> nextId{1};

  // I/O thread only.
  std::unordered_map<CURL*, std::unique_ptr<Transfer>> active;
  std::vector<CURL*> easyPool;

  void run();
  void start(std::unique_ptr<Transfer> t);
  void finish(CURL* easy, std::optional<CURLcode> code);
  void complete(std::unique_ptr<Transfer> t, std::optional<DBRequestError> error);
  CURL* takeEasy();
};

CURL* Transport::Impl::takeEasy() {
  if (!easyPool.empty()) {
    CURL* easy = easyPool.back();
    easyPool.pop_back();
    curl_easy_reset(easy);
    return easy;
  }
  return curl_easy_init();
}

void Transport::Impl::start(std::unique_ptr<Transfer> t) {
  CURL* easy = takeEasy();
  if (easy == nullptr) {
    complete(std::move(t), DBRequestError::transport(kURLErrorUnknown, "no curl handle"));
    return;
  }
  t->easy = easy;
  t->memoryCap = std::min<uint64_t>(config.maxResponseBytes, t->request.maxResponseBytes);
  for (const auto& line : t->request.headers) {
    t->headerList = curl_slist_append(t->headerList, line.c_str());
  }
  // Large bodies would otherwise wait for a 100-continue the server may never send.
  t->headerList = curl_slist_append(t->headerList, "Expect:");
  curl_easy_setopt(easy, CURLOPT_URL, t->request.url.c_str());
  curl_easy_setopt(easy, CURLOPT_HTTPHEADER, t->headerList);
  curl_easy_setopt(easy, CURLOPT_POST, 1L);
  curl_easy_setopt(easy, CURLOPT_POSTFIELDS, t->request.body.data());
  curl_easy_setopt(easy, CURLOPT_POSTFIELDSIZE_LARGE,
                   static_cast<curl_off_t>(t->request.body.size()));
  curl_easy_setopt(easy, CURLOPT_NOSIGNAL, 1L);
  curl_easy_setopt(easy, CURLOPT_ERRORBUFFER, t->errorBuffer);
  curl_easy_setopt(easy, CURLOPT_FOLLOWLOCATION, 0L);
  curl_easy_setopt(easy, CURLOPT_PROTOCOLS_STR, "http,https");
  curl_easy_setopt(easy, CURLOPT_SSL_VERIFYPEER, 1L);
  curl_easy_setopt(easy, CURLOPT_SSL_VERIFYHOST, 2L);
  if (config.caFile) curl_easy_setopt(easy, CURLOPT_CAINFO, config.caFile->c_str());
  curl_easy_setopt(easy, CURLOPT_HTTP_VERSION, static_cast<long>(CURL_HTTP_VERSION_2TLS));
  curl_easy_setopt(easy, CURLOPT_PIPEWAIT, 1L);
  curl_easy_setopt(easy, CURLOPT_TCP_NODELAY, 1L);
  curl_easy_setopt(easy, CURLOPT_TCP_KEEPALIVE, 1L);
  curl_easy_setopt(easy, CURLOPT_CONNECTTIMEOUT_MS, static_cast<long>(config.connectTimeout.count()));
  // "No byte moved for idleTimeout" rather than a total limit: large downloads may take long.
  curl_easy_setopt(easy, CURLOPT_LOW_SPEED_LIMIT, 1L);
  curl_easy_setopt(easy, CURLOPT_LOW_SPEED_TIME,
                   std::max<long>(1, static_cast<long>(config.idleTimeout.count() / 1000)));
  curl_easy_setopt(easy, CURLOPT_MAXFILESIZE_LARGE,
                   static_cast<curl_off_t>(t->request.maxResponseBytes));
  curl_easy_setopt(easy, CURLOPT_USERAGENT, config.userAgent.c_str());
  curl_easy_setopt(easy, CURLOPT_HEADERFUNCTION, onHeader);
  curl_easy_setopt(easy, CURLOPT_HEADERDATA, t.get());
  curl_easy_setopt(easy, CURLOPT_WRITEFUNCTION, onWrite);
  curl_easy_setopt(easy, CURLOPT_WRITEDATA, t.get());
  if (t->request.uploadProgress) {
    curl_easy_setopt(easy, CURLOPT_NOPROGRESS, 0L);
    curl_easy_setopt(easy, CURLOPT_XFERINFOFUNCTION, onProgress);
    curl_easy_setopt(easy, CURLOPT_XFERINFODATA, t.get());
  }
  if (curl_multi_add_handle(multi, easy) != CURLM_OK) {
    complete(std::move(t), DBRequestError::transport(kURLErrorUnknown, "curl_multi_add_handle"));
    return;
  }
  active.emplace(easy, std::move(t));
}

void Transport::Impl::finish(CURL* easy, std::optional<CURLcode> code) {
  auto it = active.find(easy);
  if (it == active.end()) return;
  std::unique_ptr<Transfer> t = std::move(it->second);
  active.erase(it);
  curl_multi_remove_handle(multi, easy);
  std::optional<DBRequestError> error;
  if (!code) {
    error = DBRequestError::transport(kURLErrorCancelled, t->request.label + ": cancelled");
  } else if (*code != CURLE_OK) {
    error = errorFor(*t, *code);
  } else {
    long status = 0;
    curl_easy_getinfo(easy, CURLINFO_RESPONSE_CODE, &status);
    t->response.status = status;
  }
  complete(std::move(t), std::move(error));
}

void Transport::Impl::complete(std::unique_ptr<Transfer> t, std::optional<DBRequestError> error) {
  if (t->file != nullptr) {
    if (std::fclose(t->file) != 0 && !error) {
      error = DBRequestError::transport(kURLErrorCannotWriteToFile, t->request.label);
    }
    t->file = nullptr;
  }
  if (error) {
    t->response.transportError = std::move(error);
    t->response.body.clear();
  }
  if (t->writingFile && !t->response.transportError) {
    t->response.bodyFile = t->request.bodyFile;
  } else if (t->request.bodyFile && t->writingFile) {
    std::error_code ignored;
    std::filesystem::remove(*t->request.bodyFile, ignored);
  }
  // An empty success body never triggers the write callback: still produce the (empty) file.
  if (t->request.bodyFile && !t->writingFile && !t->response.transportError &&
      t->response.status >= 200 && t->response.status <= 299) {
    if (std::FILE* f = createBodyFile(*t->request.bodyFile)) {
      std::fclose(f);
      t->response.bodyFile = t->request.bodyFile;
    } else {
      t->response.transportError =
          DBRequestError::transport(kURLErrorCannotWriteToFile, t->request.label);
    }
  }
  if (t->headerList != nullptr) curl_slist_free_all(t->headerList);
  if (t->easy != nullptr) easyPool.push_back(t->easy);
  auto completion = std::move(t->completion);
  HttpResponse response = std::move(t->response);
  t.reset();
  if (completion) completion(std::move(response));
}

void Transport::Impl::run() {
  threadId = std::this_thread::get_id();
  for (;;) {
    std::deque<std::unique_ptr<Transfer>> starting;
    std::vector<uint64_t> cancelling;
    {
      std::lock_guard lock(mutex);
      if (stopping) break;
      starting.swap(pending);
      cancelling.swap(cancels);
    }
    for (auto& t : starting) start(std::move(t));
    for (uint64_t id : cancelling) {
      for (auto& [easy, t] : active) {
        if (t->id == id) {
          finish(easy, std::nullopt);
          break;
        }
      }
    }
    int running = 0;
    curl_multi_perform(multi, &running);
    int left = 0;
    while (CURLMsg* message = curl_multi_info_read(multi, &left)) {
      if (message->msg == CURLMSG_DONE) finish(message->easy_handle, message->data.result);
    }
    curl_multi_poll(multi, nullptr, 0, 1000, nullptr);
  }
  // Shutting down: everything still queued or running ends as cancelled.
  std::deque<std::unique_ptr<Transfer>> leftover;
  {
    std::lock_guard lock(mutex);
    leftover.swap(pending);
  }
  for (auto& t : leftover) {
    complete(std::move(t), DBRequestError::transport(kURLErrorCancelled, "client closed"));
  }
  while (!active.empty()) finish(active.begin()->first, std::nullopt);
  for (CURL* easy : easyPool) curl_easy_cleanup(easy);
  easyPool.clear();
  // Closes every cached connection.
  curl_multi_cleanup(multi);
  multi = nullptr;
}

Transport::Transport(const DBClientConfig& config) : impl_(std::make_shared<Impl>(config)) {
  ensureCurlInitialized();
  impl_->multi = curl_multi_init();
  curl_multi_setopt(impl_->multi, CURLMOPT_PIPELINING, static_cast<long>(CURLPIPE_MULTIPLEX));
  impl_->thread = std::thread([impl = impl_] { impl->run(); });
}

Transport::~Transport() { close(); }

uint64_t Transport::submit(HttpRequest request, Completion completion) {
  auto t = std::make_unique<Transfer>();
  t->id = impl_->nextId++;
  t->request = std::move(request);
  t->completion = std::move(completion);
  const uint64_t id = t->id;
  {
    std::lock_guard lock(impl_->mutex);
    if (!impl_->stopping) {
      impl_->pending.push_back(std::move(t));
      curl_multi_wakeup(impl_->multi);
      return id;
    }
  }
  HttpResponse response;
  response.transportError =
      DBRequestError::transport(kURLErrorCancelled, t->request.label + ": client closed");
  if (t->completion) t->completion(std::move(response));
  return id;
}

void Transport::cancel(uint64_t id) {
  std::lock_guard lock(impl_->mutex);
  if (impl_->stopping) return;
  impl_->cancels.push_back(id);
  curl_multi_wakeup(impl_->multi);
}

void Transport::close() {
  {
    std::lock_guard lock(impl_->mutex);
    if (impl_->stopping) return;
    impl_->stopping = true;
    curl_multi_wakeup(impl_->multi);
  }
  if (impl_->thread.joinable()) {
    if (onIOThread()) {
      impl_->thread.detach();  // the loop ends after this completion returns
    } else {
      impl_->thread.join();
    }
  }
  impl_->closed = true;
}

bool Transport::isClosed() const {
  std::lock_guard lock(impl_->mutex);
  return impl_->stopping;
}

bool Transport::onIOThread() const { return impl_->threadId.load() == std::this_thread::get_id(); }

}  // namespace wdc::dbx
