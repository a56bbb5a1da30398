// Path pieces the Dropbox folder, search, lock and delete operations share. Paths are the host's
// ("Tasks/a.tod", "/Tasks") or Dropbox's ("/tasks/a.tod"; the root is ""); every function works
// on the text alone and never fails.
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace wdc::dropbox {

// The last component: "/a/b/" gives "b", "b" gives "b", "/" gives "/", "" gives "".
[[nodiscard]] std::string lastPathComponent(std::string_view path);
// Everything before the last component: "/a/b" gives "/a", "/a" gives "/", "a" gives "".
[[nodiscard]] std::string deletingLastPathComponent(std::string_view path);
// `base` and `name` joined with exactly one "/"; an empty `name` leaves `base` as it is, and an
// empty `base` (Dropbox's root) gives "/name".
[[nodiscard]] std::string appendingPathComponent(std::string_view base, std::string_view name);
// The text after the last "." of the last component ("" when there is none, or when the only
// "." starts the name).
[[nodiscard]] std::string pathExtension(std::string_view path);
// The path without that extension and its dot.
[[nodiscard]] std::string deletingPathExtension(std::string_view path);
// How log lines show an optional string: its text, or "(null)" when absent.
[[nodiscard]] std::string textOrNull(const std::optional<std::string>& text);

}  // namespace wdc::dropbox
