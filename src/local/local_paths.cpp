// The local backend's root folder and path rules.
#include "local/local_paths.h"

#include <fmt/format.h>

#include <cstdlib>
#include <mutex>

#include "webdavconnect/webdav_connect.h"

namespace wdc {
namespace {

std::mutex& rootMutex() {
  static auto* mutex = new std::mutex;
  return *mutex;
}

std::optional<std::filesystem::path>& rootOverride() {
  static auto* root = new std::optional<std::filesystem::path>;
  return *root;
}

// <XDG data home>/webdavconnect/Local, as the XDG base-directory rules place user data.
std::filesystem::path defaultRoot() {
  const std::string configured = WDC_LOCAL_ROOT_FOLDER;
  if (!configured.empty()) return configured;
  if (const char* xdg = std::getenv("XDG_DATA_HOME"); xdg && *xdg == '/') {
    return std::filesystem::path(xdg) / "webdavconnect" / "Local";
  }
  const char* home = std::getenv("HOME");
  return std::filesystem::path(home && *home ? home : "/tmp") / ".local" / "share" /
         "webdavconnect" / "Local";
}

}  // namespace

std::filesystem::path WebDAVConnect::localRootFolder() {
  std::lock_guard lock(rootMutex());
  if (rootOverride()) return *rootOverride();
  return defaultRoot();
}

void WebDAVConnect::setLocalRootFolderForProcess(const std::filesystem::path& root) {
  std::lock_guard lock(rootMutex());
  rootOverride() = root;
}

std::string appendingPathComponent(std::string_view base, std::string_view component) {
  std::string joined(base);
  if (!component.empty()) {
    joined += '/';
    joined += component;
  }
  std::string out;
  out.reserve(joined.size());
  for (char c : joined) {
    if (c == '/' && !out.empty() && out.back() == '/') continue;
    out += c;
  }
  if (out.size() > 1 && out.back() == '/') out.pop_back();
  return out;
}

std::string localFolderPath(const std::optional<std::string>& folder) {
  const std::string root = WebDAVConnect::localRootFolder().string();
  return folder ? appendingPathComponent(root, *folder) : appendingPathComponent(root, "");
}

Error fileSystemError(const std::error_code& code, std::string_view path) {
  return Error::withDescription(std::string(kPOSIXErrorDomain), code.value(),
                                fmt::format("{}: {}", code.message(), path));
}

}  // namespace wdc
