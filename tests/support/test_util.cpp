#include "support/test_util.h"

#include <stdlib.h>

#include <fstream>
#include <iterator>

namespace wdc::test {

Bytes bytesOf(std::string_view text) { return Bytes(text.begin(), text.end()); }
std::string textOf(const Bytes& bytes) { return std::string(bytes.begin(), bytes.end()); }

Bytes readFileBytes(const std::filesystem::path& path) {
  std::ifstream in(path, std::ios::binary);
  return Bytes(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

void writeFileBytes(const std::filesystem::path& path, const Bytes& bytes) {
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out.write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
}

TempDir::TempDir() {
  std::string pattern = (std::filesystem::temp_directory_path() / "wdc-test-XXXXXX").string();
  if (::mkdtemp(pattern.data()) == nullptr) throw std::runtime_error("mkdtemp failed");
  path_ = pattern;
}

TempDir::~TempDir() {
  std::error_code ec;
  std::filesystem::remove_all(path_, ec);
}

}  // namespace wdc::test
