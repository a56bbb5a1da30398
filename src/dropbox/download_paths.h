// Where a download goes: the remote path of a file in a host folder, and its scratch file in the
// Env's temporary directory.
#pragma once

#include <optional>
#include <string>

namespace wdc::dropbox {

// The resolved folder with `name` appended as a path component ("/tod" + "a.tod" = "/tod/a.tod";
// the root gives "/a.tod").
[[nodiscard]] std::string remoteFilePath(const std::optional<std::string>& folder,
                                         const std::string& name);

// "<temp>/<name>.gz", after removing any stale "<temp>/<name>" and "<temp>/<name>.gz". Only the
// last path component of `name` is used, so a name cannot place the file outside the temporary
// directory.
[[nodiscard]] std::string freshScratchPath(const std::string& name);

}  // namespace wdc::dropbox
