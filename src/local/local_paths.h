// Path and error helpers of the local-folder backend.
#pragma once

#include <filesystem>
#include <optional>
#include <string>
#include <string_view>
#include <system_error>

#include "webdavconnect/error.h"

namespace wdc {

// Domain of errors reported by the file system (codes are errno values).
inline constexpr std::string_view kPOSIXErrorDomain = "NSPOSIXErrorDomain";

// `base` + "/" + `component` with exactly one separator between them and none doubled inside;
// an empty component gives `base` (without a trailing separator).
std::string appendingPathComponent(std::string_view base, std::string_view component);

// The root folder joined with `folder` (the root itself when `folder` is absent).
std::string localFolderPath(const std::optional<std::string>& folder);

// A file-system failure as an error value: errno code, "<reason>: <path>" as its description.
Error fileSystemError(const std::error_code& code, std::string_view path);

}  // namespace wdc
