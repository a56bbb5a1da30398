// The Dropbox content hash: SHA-256 over the concatenated SHA-256 digests of the content's
// 4 MiB blocks, in lower-case hex. Downloads are checked against the hash the server sends with
// them, so a body damaged on the way is caught even when its length is right.
#pragma once

#include <filesystem>
#include <optional>
#include <string>
#include <string_view>

namespace wdc::dbx {

inline constexpr size_t kContentHashBlockBytes = size_t{4} << 20;

// Incremental form: feed the content in pieces of any size. Thread-compatible.
class DBContentHasher {
 public:
  DBContentHasher();
  ~DBContentHasher();
  DBContentHasher(const DBContentHasher&) = delete;
  DBContentHasher& operator=(const DBContentHasher&) = delete;

  void update(std::string_view data);
  // The hash of everything fed so far. Call once.
  [[nodiscard]] std::string finish();

 private:
  struct State;
  State* state_;
};

[[nodiscard]] std::string contentHashOf(std::string_view data);
// Nullopt when the file cannot be read.
[[nodiscard]] std::optional<std::string> contentHashOfFile(const std::filesystem::path& path);

}  // namespace wdc::dbx
