#include "dbx/content_hash.h"

#include <nettle/sha2.h>

#include <cstdio>
#include <string>
#include <vector>

namespace wdc::dbx {

struct DBContentHasher::State {
  sha256_ctx block;
  sha256_ctx overall;
  size_t blockFill = 0;
};

DBContentHasher::DBContentHasher() : state_(new State) {
  sha256_init(&state_->block);
  sha256_init(&state_->overall);
}

DBContentHasher::~DBContentHasher() { delete state_; }

void DBContentHasher::update(std::string_view data) {
  while (!data.empty()) {
    const size_t take = std::min(data.size(), kContentHashBlockBytes - state_->blockFill);
    sha256_update(&state_->block, take, reinterpret_cast<const uint8_t*>(data.data()));
    state_->blockFill += take;
    data.remove_prefix(take);
    if (state_->blockFill == kContentHashBlockBytes) {
      uint8_t digest[SHA256_DIGEST_SIZE];
      sha256_digest(&state_->block, SHA256_DIGEST_SIZE, digest);  // also re-initialises
      sha256_update(&state_->overall, SHA256_DIGEST_SIZE, digest);
      state_->blockFill = 0;
    }
  }
}

std::string DBContentHasher::finish() {
  if (state_->blockFill > 0) {
    uint8_t digest[SHA256_DIGEST_SIZE];
    sha256_digest(&state_->block, SHA256_DIGEST_SIZE, digest);
    sha256_update(&state_->overall, SHA256_DIGEST_SIZE, digest);
    state_->blockFill = 0;
  }
  uint8_t digest[SHA256_DIGEST_SIZE];
  sha256_digest(&state_->overall, SHA256_DIGEST_SIZE, digest);
  static constexpr char kHex[] = "0123456789abcdef";
  std::string hex;
  hex.reserve(2 * SHA256_DIGEST_SIZE);
  for (uint8_t byte : digest) {
    hex.push_back(kHex[byte >> 4]);
    hex.push_back(kHex[byte & 15]);
  }
  return hex;
}

std::string contentHashOf(std::string_view data) {
  DBContentHasher hasher;
  hasher.update(data);
  return hasher.finish();
}

std::optional<std::string> contentHashOfFile(const std::filesystem::path& path) {
  std::FILE* in = std::fopen(path.c_str(), "rb");
  if (in == nullptr) return std::nullopt;
  DBContentHasher hasher;
  std::vector<char> buffer(size_t{1} << 16);
  size_t got;
  while ((got = std::fread(buffer.data(), 1, buffer.size(), in)) > 0) {
    hasher.update(std::string_view(buffer.data(), got));
  }
  const bool failed = std::ferror(in) != 0;
  std::fclose(in);
  if (failed) return std::nullopt;
  return hasher.finish();
}

}  // namespace wdc::dbx
