// files/list_folder/longpoll: holds the request until the cursor's folder changes or the timeout
// passes. Unauthenticated, like Dropbox's notify host.
#include "emulator/emulator_impl.h"
#include "emulator/route_helpers.h"
#include "platform/env.h"

namespace wdc::emu {
namespace {

// How often a held longpoll looks at the journal again.
constexpr uint32_t kRecheckMs = 50;

// Whether `cursor` has something to report; absent when it is not a list_folder cursor.
std::optional<bool> hasChanges(Emulator::Impl& impl, const std::string& cursor) {
  std::lock_guard lock(impl.mutex);
  const auto it = impl.cursors.find(cursor);
  if (it == impl.cursors.end() || it->second.folderLower == "\x01search") return std::nullopt;
  const CursorState& state = it->second;
  if (state.offset < state.pending->size()) return true;
  return !impl.store.changesSince(state.sequence, state.folderLower, state.recursive).empty();
}

}  // namespace

void handleListFolderLongpoll(Emulator::Impl& impl, Exchange& exchange, const Json& arg) {
  ArgReader args(arg, "request body");
  const std::string cursor = args.string("cursor");
  const uint64_t timeout = args.number("timeout", 30, 30, 480);
  if (args.ok() && cursor.empty()) args.fail("cursor: string is too short");
  if (!args.ok()) return exchange.replyBadInput(args.problem());

  const auto deadline = impl.env().uptime() + std::chrono::seconds(timeout);
  for (;;) {
    const std::optional<bool> changed = hasChanges(impl, cursor);
    if (!changed) return exchange.replyRouteError(tag("reset"));
    if (*changed || impl.stopping || impl.env().uptime() >= deadline) {
      return exchange.replyJson(Json{{"changes", *changed}});
    }
    impl.pause(kRecheckMs);
  }
}

}  // namespace wdc::emu
