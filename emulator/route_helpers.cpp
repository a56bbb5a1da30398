#include "emulator/route_helpers.h"

#include <algorithm>

namespace wdc::emu {
namespace {

bool isHex(std::string_view text) {
  return !text.empty() && std::all_of(text.begin(), text.end(), [](char c) {
    return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'f');
  });
}

}  // namespace

std::string readPath(ArgReader& args, std::string_view field, PathRules rules) {
  std::string path = args.string(field);
  if (!args.ok()) return path;
  const std::string name(field);
  if (path == "/") {
    args.fail(name + ": Specify the root folder as an empty string rather than as \"/\".");
  } else if (path.empty()) {
    if (!rules.root) args.fail(name + ": '' did not match pattern '(/(.|[\\r\\n])*)'");
  } else if (path.rfind("id:", 0) == 0) {
    if (!rules.id || path.size() == 3) args.fail(name + ": '" + path + "' did not match pattern");
  } else if (path.rfind("rev:", 0) == 0) {
    if (!rules.rev || path.size() < 13 || !isHex(std::string_view(path).substr(4))) {
      args.fail(name + ": '" + path + "' did not match pattern");
    }
  } else if (path.front() != '/') {
    args.fail(name + ": '" + path + "' did not match pattern '(/(.|[\\r\\n])*)'");
  }
  return path;
}

const StoredEntry* resolve(const Emulator::Impl& impl, std::string_view path) {
  if (path.rfind("id:", 0) == 0) return impl.store.findById(path);
  if (path.rfind("rev:", 0) == 0) return impl.store.findByRev(path.substr(4));
  return impl.store.find(path);
}

std::optional<std::string> resolveFolder(const Emulator::Impl& impl, std::string_view path,
                                         std::string* lookupTag) {
  if (path.empty()) return std::string();
  if (path.rfind("id:", 0) != 0 && !Store::isWellFormed(path)) {
    *lookupTag = "malformed_path";
    return std::nullopt;
  }
  const StoredEntry* entry = resolve(impl, path);
  if (entry == nullptr) {
    *lookupTag = "not_found";
    return std::nullopt;
  }
  if (!entry->isFolder) {
    *lookupTag = "not_folder";
    return std::nullopt;
  }
  return Store::lowerPath(entry->pathDisplay);
}

Json nestedTag(std::string_view outer, std::string_view inner) {
  Json json = tag(outer);
  json[std::string(outer)] = tag(inner);
  return json;
}

Json writeErrorJson(WriteFailure failure) {
  switch (failure) {
    case WriteFailure::kMalformedPath:
      return tag("malformed_path");
    case WriteFailure::kConflictFile:
      return nestedTag("conflict", "file");
    case WriteFailure::kConflictFolder:
      return nestedTag("conflict", "folder");
    case WriteFailure::kConflictFileAncestor:
      return nestedTag("conflict", "file_ancestor");
    case WriteFailure::kDisallowedName:
      return tag("disallowed_name");
    case WriteFailure::kNone:
      break;
  }
  return tag("other");
}

void replyWriteContention(Exchange& exchange) {
  exchange.replyHeaders.emplace_back("Retry-After", "1");
  exchange.replyJson(
      Json{{"error_summary", "too_many_write_operations/.."},
           {"error", Json{{"reason", tag("too_many_write_operations")}, {"retry_after", 1}}}},
      429);
}

WriteMode readWriteMode(ArgReader& args) {
  WriteMode mode;
  const Json* value = nullptr;
  const std::optional<std::string> tagName = args.unionTag("mode", &value);
  if (!tagName || *tagName == "add") {
    mode.kind = WriteMode::kAdd;
  } else if (*tagName == "overwrite") {
    mode.kind = WriteMode::kOverwrite;
  } else if (*tagName == "update") {
    mode.kind = WriteMode::kUpdate;
    const auto rev = value->is_object() ? value->find("update") : value->end();
    if (!value->is_object() || rev == value->end() || !rev->is_string() ||
        !isHex(rev->get<std::string>()) || rev->get<std::string>().size() < 9) {
      args.fail("mode: update needs a rev");
    } else {
      mode.updateRev = rev->get<std::string>();
    }
  } else {
    args.fail("mode: unknown tag '" + *tagName + "'");
  }
  mode.autorename = args.boolean("autorename", false);
  mode.strictConflict = args.boolean("strict_conflict", false);
  return mode;
}

}  // namespace wdc::emu
