// files/list_folder and list_folder/continue (paged listings and the change journal), and the
// search routes (files/search, files/search_v2, files/search/continue_v2).
#include <algorithm>
#include <cctype>

#include "emulator/route_helpers.h"

namespace wdc::emu {
namespace {

// Renders one path as it is now: live entries as file/folder, gone ones as deleted.
Json renderPath(const Emulator::Impl& impl, const std::string& lower,
                const std::map<std::string, std::string>& deletedDisplay) {
  if (const StoredEntry* entry = impl.store.find(lower)) {
    Json json = entryJson(*entry, true);
    if (impl.listedWithoutClientModified.count(lower) != 0) json.erase("client_modified");
    return json;
  }
  const auto it = deletedDisplay.find(lower);
  return deletedJson(it != deletedDisplay.end() ? it->second : lower);
}

// Pages out of `state.pending` and answers with a new cursor. REQUIRES: impl.mutex.
void replyPage(Emulator::Impl& impl, Exchange& exchange, CursorState state,
               const std::map<std::string, std::string>& deletedDisplay) {
  const std::vector<std::string>& pending = *state.pending;
  const size_t available = pending.size() - state.offset;
  const size_t count = state.limit == 0 ? available : std::min<size_t>(available, state.limit);
  Json entries = Json::array();
  for (size_t i = 0; i < count; ++i) {
    entries.push_back(renderPath(impl, pending[state.offset + i], deletedDisplay));
  }
  state.offset += count;
  const bool hasMore = state.offset < pending.size();
  exchange.replyJson(Json{{"entries", std::move(entries)},
                          {"cursor", impl.newCursor(std::move(state))},
                          {"has_more", hasMore}});
}

std::map<std::string, std::string> displayNames(const std::vector<Change>& changes) {
  std::map<std::string, std::string> names;
  for (const Change& change : changes) {
    if (change.entry == nullptr) names[change.pathLower] = change.deletedDisplay;
  }
  return names;
}

// Words of a name for search: runs of letters and digits (bytes above 0x7f count as letters).
std::vector<std::string> wordsOf(const std::string& lowerName) {
  std::vector<std::string> words;
  std::string word;
  for (char c : lowerName) {
    if (std::isalnum(static_cast<unsigned char>(c)) || static_cast<unsigned char>(c) >= 0x80) {
      word.push_back(c);
    } else if (!word.empty()) {
      words.push_back(std::move(word));
      word.clear();
    }
  }
  if (!word.empty()) words.push_back(std::move(word));
  return words;
}

// Whole words match for every token but the last, which may be a word's prefix ("bat c" finds
// "bat cave", not "batman car"). A token with punctuation (".tod") matches anywhere in the name.
bool nameMatches(const std::string& lowerName, const std::vector<std::string>& tokens) {
  const std::vector<std::string> words = wordsOf(lowerName);
  for (size_t i = 0; i < tokens.size(); ++i) {
    const std::string& token = tokens[i];
    const bool last = i + 1 == tokens.size();
    const bool plain = std::all_of(token.begin(), token.end(), [](char c) {
      return std::isalnum(static_cast<unsigned char>(c)) || static_cast<unsigned char>(c) >= 0x80;
    });
    bool found = false;
    if (!plain) {
      found = lowerName.find(token) != std::string::npos;
    } else {
      found = std::any_of(words.begin(), words.end(), [&](const std::string& word) {
        return last ? word.rfind(token, 0) == 0 : word == token;
      });
    }
    if (!found) return false;
  }
  return true;
}

std::vector<std::string> tokensOf(const std::string& query) {
  std::vector<std::string> tokens;
  size_t start = 0;
  const std::string lower = Store::lowerPath(query);
  while (start < lower.size()) {
    size_t end = lower.find(' ', start);
    if (end == std::string::npos) end = lower.size();
    if (end > start) tokens.push_back(lower.substr(start, end - start));
    start = end + 1;
  }
  return tokens;
}

struct SearchHit {
  const StoredEntry* entry = nullptr;  // nullptr for a deleted match
  std::string deletedDisplay;
};

std::vector<SearchHit> runSearch(const Emulator::Impl& impl, const std::string& folderLower,
                                 const std::string& query, bool deleted) {
  const std::vector<std::string> tokens = tokensOf(query);
  std::vector<SearchHit> hits;
  if (tokens.empty()) return hits;
  auto nameOf = [](const std::string& display) {
    return Store::lowerPath(display.substr(display.rfind('/') + 1));
  };
  if (deleted) {
    for (const Change& gone : impl.store.tombstones(folderLower, true)) {
      if (nameMatches(nameOf(gone.deletedDisplay), tokens)) {
        hits.push_back(SearchHit{nullptr, gone.deletedDisplay});
      }
    }
    return hits;
  }
  // Files written within the index delay are not searchable yet, as on the real service.
  const TimePoint indexedUpTo = impl.now() - impl.options.searchIndexDelay;
  for (const StoredEntry* entry : impl.store.list(folderLower, true)) {
    if (!entry->isFolder && entry->serverModified > indexedUpTo) continue;
    if (nameMatches(nameOf(entry->pathDisplay), tokens)) hits.push_back(SearchHit{entry, {}});
  }
  return hits;
}

Json hitJson(const SearchHit& hit) {
  return hit.entry ? entryJson(*hit.entry, true) : deletedJson(hit.deletedDisplay);
}

// search_v2 pages kept for search/continue_v2.
void searchV2Page(Emulator::Impl& impl, Exchange& exchange, std::vector<Json> matches,
                  size_t maxResults) {
  Json page = Json::array();
  const size_t count = std::min(matches.size(), maxResults);
  for (size_t i = 0; i < count; ++i) page.push_back(std::move(matches[i]));
  Json result{{"matches", std::move(page)}, {"has_more", matches.size() > count}};
  if (matches.size() > count) {
    // The rest rides in a cursor state of its own: a pending list of rendered matches.
    CursorState state;
    auto rest = std::make_shared<std::vector<std::string>>();
    for (size_t i = count; i < matches.size(); ++i) rest->push_back(matches[i].dump());
    state.pending = std::move(rest);
    state.limit = maxResults;
    state.folderLower = "\x01search";
    result["cursor"] = impl.newCursor(std::move(state));
  }
  exchange.replyJson(result);
}

}  // namespace

void handleListFolder(Emulator::Impl& impl, Exchange& exchange, const Json& arg) {
  ArgReader args(arg, "request body");
  const std::string path = readPath(args, "path", PathRules{.root = true, .id = true});
  const bool recursive = args.boolean("recursive", false);
  const bool includeDeleted = args.boolean("include_deleted", false);
  args.boolean("include_media_info", false);
  args.boolean("include_mounted_folders", true);
  args.boolean("include_non_downloadable_files", true);
  const uint64_t limit = args.number("limit", 0, 1, 2000);
  if (!args.ok()) return exchange.replyBadInput(args.problem());

  std::lock_guard lock(impl.mutex);
  std::string lookupTag;
  const std::optional<std::string> folder = resolveFolder(impl, path, &lookupTag);
  if (!folder) return exchange.replyRouteError(nestedTag("path", lookupTag));
  std::vector<Change> listing;
  if (includeDeleted) listing = impl.store.tombstones(*folder, recursive);
  auto pending = std::make_shared<std::vector<std::string>>();
  for (const Change& gone : listing) pending->push_back(gone.pathLower);
  for (const StoredEntry* entry : impl.store.list(*folder, recursive)) {
    pending->push_back(Store::lowerPath(entry->pathDisplay));
  }
  CursorState state;
  state.folderLower = *folder;
  state.recursive = recursive;
  state.includeDeleted = includeDeleted;
  state.limit = limit;
  state.pending = std::move(pending);
  state.sequence = impl.store.sequence();
  replyPage(impl, exchange, std::move(state), displayNames(listing));
}

void handleListFolderContinue(Emulator::Impl& impl, Exchange& exchange, const Json& arg) {
  ArgReader args(arg, "request body");
  const std::string cursor = args.string("cursor");
  if (args.ok() && cursor.empty()) args.fail("cursor: string is too short");
  if (!args.ok()) return exchange.replyBadInput(args.problem());

  std::lock_guard lock(impl.mutex);
  const auto it = impl.cursors.find(cursor);
  if (it == impl.cursors.end() || it->second.folderLower == "\x01search") {
    return exchange.replyRouteError(tag("reset"));
  }
  CursorState state = it->second;
  if (!state.folderLower.empty() && impl.store.find(state.folderLower) == nullptr) {
    // The listed folder itself is gone.
    return exchange.replyRouteError(nestedTag("path", "not_found"));
  }
  if (state.offset < state.pending->size()) {
    const std::vector<Change> gone = impl.store.tombstones(state.folderLower, state.recursive);
    return replyPage(impl, exchange, std::move(state), displayNames(gone));
  }
  const std::vector<Change> changes =
      impl.store.changesSince(state.sequence, state.folderLower, state.recursive);
  auto pending = std::make_shared<std::vector<std::string>>();
  for (const Change& change : changes) pending->push_back(change.pathLower);
  state.pending = std::move(pending);
  state.offset = 0;
  state.sequence = impl.store.sequence();
  replyPage(impl, exchange, std::move(state), displayNames(changes));
}

void handleSearch(Emulator::Impl& impl, Exchange& exchange, const Json& arg) {
  ArgReader args(arg, "request body");
  const std::string path = readPath(args, "path", PathRules{.root = true, .id = true});
  const std::string query = args.string("query");
  const uint64_t start = args.number("start", 0, 0, 9999);
  const uint64_t maxResults = args.number("max_results", 100, 1, 1000);
  const std::optional<std::string> mode = args.unionTag("mode");
  if (args.ok() && query.size() > 1000) args.fail("query: string is longer than 1000");
  if (args.ok() && mode && *mode != "filename" && *mode != "filename_and_content" &&
      *mode != "deleted_filename") {
    args.fail("mode: unknown tag '" + *mode + "'");
  }
  if (!args.ok()) return exchange.replyBadInput(args.problem());

  std::lock_guard lock(impl.mutex);
  std::string lookupTag;
  const std::optional<std::string> folder = resolveFolder(impl, path, &lookupTag);
  if (!folder) return exchange.replyRouteError(nestedTag("path", lookupTag));
  const std::vector<SearchHit> hits =
      runSearch(impl, *folder, query, mode && *mode == "deleted_filename");
  Json matches = Json::array();
  const size_t first = std::min<size_t>(start, hits.size());
  const size_t end = std::min<size_t>(first + maxResults, hits.size());
  for (size_t i = first; i < end; ++i) {
    matches.push_back(Json{{"match_type", tag("filename")}, {"metadata", hitJson(hits[i])}});
  }
  exchange.replyJson(
      Json{{"matches", std::move(matches)}, {"more", end < hits.size()}, {"start", end}});
}

void handleSearchV2(Emulator::Impl& impl, Exchange& exchange, const Json& arg) {
  ArgReader args(arg, "request body");
  const std::string query = args.string("query");
  std::string path;
  uint64_t maxResults = 100;
  bool deleted = false;
  if (const Json* options = args.object("options", false)) {
    ArgReader optionArgs(*options, "request body: options");
    if (options->contains("path") && !(*options)["path"].is_null()) {
      path = readPath(optionArgs, "path", PathRules{.root = true, .id = true});
    }
    maxResults = optionArgs.number("max_results", 100, 1, 1000);
    const std::optional<std::string> status = optionArgs.unionTag("file_status");
    deleted = status && *status == "deleted";
    optionArgs.boolean("filename_only", false);
    if (!optionArgs.ok())
      args.fail(optionArgs.problem().substr(std::string("request body: ").size()));
  }
  if (args.ok() && query.size() > 1000) args.fail("query: string is longer than 1000");
  if (!args.ok()) return exchange.replyBadInput(args.problem());

  std::lock_guard lock(impl.mutex);
  std::string lookupTag;
  const std::optional<std::string> folder = resolveFolder(impl, path, &lookupTag);
  if (!folder) return exchange.replyRouteError(nestedTag("path", lookupTag));
  std::vector<Json> matches;
  for (const SearchHit& hit : runSearch(impl, *folder, query, deleted)) {
    matches.push_back(Json{{"metadata", Json{{".tag", "metadata"}, {"metadata", hitJson(hit)}}},
                           {"match_type", tag("filename")}});
  }
  searchV2Page(impl, exchange, std::move(matches), maxResults);
}

void handleSearchContinueV2(Emulator::Impl& impl, Exchange& exchange, const Json& arg) {
  ArgReader args(arg, "request body");
  const std::string cursor = args.string("cursor");
  if (!args.ok()) return exchange.replyBadInput(args.problem());
  std::lock_guard lock(impl.mutex);
  const auto it = impl.cursors.find(cursor);
  if (it == impl.cursors.end() || it->second.folderLower != "\x01search") {
    return exchange.replyRouteError(Json{{".tag", "invalid_argument"}});
  }
  std::vector<Json> matches;
  for (const std::string& text : *it->second.pending) matches.push_back(Json::parse(text));
  const size_t maxResults = it->second.limit;
  searchV2Page(impl, exchange, std::move(matches), maxResults);
}

}  // namespace wdc::emu
