// Builds a ZIP archive in memory with libarchive, as download_zip answers it.
#pragma once

#include <chrono>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace wdc::emu {

struct ZipItem {
  std::string path;           // relative, '/'-separated; a folder's path ends in '/'
  std::string_view contents;  // files only; must stay valid until the archive is built
  std::chrono::system_clock::time_point modified;
};

// Returns the archive bytes, or nullopt and a reason when libarchive fails.
[[nodiscard]] std::optional<std::string> buildZip(const std::vector<ZipItem>& items,
                                                  std::string* error = nullptr);

}  // namespace wdc::emu
