// Pieces several route families share: path arguments, lookups by path, id or rev, and the JSON
// of LookupError / WriteError values.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "emulator/emulator_impl.h"

namespace wdc::emu {

// Which path forms an argument admits (Stone's PathR, PathROrId, ReadPath, WritePath...).
struct PathRules {
  bool root = false;  // "" for the root
  bool id = false;    // "id:..."
  bool rev = false;   // "rev:<hex>"
};

// Reads the string field `field` and checks its form; problems go to `args` as 400 texts
// ("path: Specify the root folder as an empty string rather than as \"/\".").
std::string readPath(ArgReader& args, std::string_view field, PathRules rules);

// The entry a path argument names (display path, id: or rev:), or nullptr. REQUIRES: impl.mutex.
const StoredEntry* resolve(const Emulator::Impl& impl, std::string_view path);
// The lower-cased folder path a PathROrId names, or nullopt (then `lookupTag` says why:
// not_found or not_folder). REQUIRES: impl.mutex.
std::optional<std::string> resolveFolder(const Emulator::Impl& impl, std::string_view path,
                                         std::string* lookupTag);

// {".tag": "conflict", "conflict": {".tag": "file"}} and friends.
Json writeErrorJson(WriteFailure failure);
// {".tag": "<outer>", "<outer>": {".tag": "<inner>"}}
Json nestedTag(std::string_view outer, std::string_view inner);
// 429 too_many_write_operations with Retry-After 1: another commit holds the account's lock.
void replyWriteContention(Exchange& exchange);
// Reads a WriteMode union plus autorename and strict_conflict.
WriteMode readWriteMode(ArgReader& args);

}  // namespace wdc::emu
