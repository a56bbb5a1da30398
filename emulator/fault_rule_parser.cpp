// Parses the `ROUTE:KIND[:ARG][@P][#N]` fault rules of `wdc emulator --fault`.
#include <charconv>
#include <cmath>
#include <utility>

#include "emulator/emulator.h"

namespace wdc::emu {
namespace {

template <typename T>
bool parseWhole(std::string_view text, T& out) {
  if (text.empty()) return false;
  const auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), out);
  return ec == std::errc() && end == text.data() + text.size();
}

bool parseProbability(std::string_view text, double& out) {
  // from_chars for double is in libstdc++ 12; a bounded copy keeps strtod away from the caller's
  // unterminated view.
  if (text.empty() || text.size() > 32) return false;
  const auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), out);
  return ec == std::errc() && end == text.data() + text.size() && std::isfinite(out) &&
         out >= 0.0 && out <= 1.0;
}

// Each kind and the name a rule gives it.
constexpr std::pair<FaultKind, std::string_view> kKindNames[] = {
    {FaultKind::kTooManyRequests, "429"}, {FaultKind::kTooManyWriteOperations, "429w"},
    {FaultKind::kInternalError, "500"},   {FaultKind::kUnavailable, "503"},
    {FaultKind::kDrop, "drop"},           {FaultKind::kTruncate, "truncate"},
    {FaultKind::kCorrupt, "corrupt"},     {FaultKind::kReset, "reset"},
    {FaultKind::kLatency, "latency"},     {FaultKind::kTooManyFiles, "toomanyfiles"},
};

std::optional<FaultKind> parseKind(std::string_view text) {
  for (const auto& [kind, name] : kKindNames) {
    if (name == text) return kind;
  }
  return std::nullopt;
}

}  // namespace

std::string_view faultKindName(FaultKind kind) {
  for (const auto& [known, name] : kKindNames) {
    if (known == kind) return name;
  }
  return "?";
}

std::optional<FaultRule> parseFaultRule(std::string_view text, std::string* error) {
  auto fail = [&](std::string_view why) -> std::optional<FaultRule> {
    if (error) *error = "bad fault rule \"" + std::string(text) + "\": " + std::string(why);
    return std::nullopt;
  };
  FaultRule rule;
  std::string_view rest = text;
  if (const size_t hash = rest.rfind('#'); hash != std::string_view::npos) {
    uint64_t count = 0;
    if (!parseWhole(rest.substr(hash + 1), count) || count == 0) {
      return fail("the count after # must be a positive whole number");
    }
    rule.count = count;
    rest = rest.substr(0, hash);
  }
  if (const size_t at = rest.rfind('@'); at != std::string_view::npos) {
    if (!parseProbability(rest.substr(at + 1), rule.probability)) {
      return fail("the probability after @ must be a number from 0 to 1");
    }
    rest = rest.substr(0, at);
  }
  const size_t firstColon = rest.find(':');
  if (firstColon == std::string_view::npos || firstColon == 0) {
    return fail("expected ROUTE:KIND");
  }
  rule.route = std::string(rest.substr(0, firstColon));
  if (rule.route.front() == '/') rule.route.erase(0, 1);
  rest = rest.substr(firstColon + 1);
  std::string_view kindText = rest;
  std::optional<std::string_view> argText;
  if (const size_t colon = rest.find(':'); colon != std::string_view::npos) {
    kindText = rest.substr(0, colon);
    argText = rest.substr(colon + 1);
  }
  const std::optional<FaultKind> kind = parseKind(kindText);
  if (!kind) {
    return fail(
        "unknown kind (429, 429w, 500, 503, drop, truncate, corrupt, reset, latency, "
        "toomanyfiles)");
  }
  rule.kind = *kind;

  const bool is429 =
      rule.kind == FaultKind::kTooManyRequests || rule.kind == FaultKind::kTooManyWriteOperations;
  if (is429) {
    rule.placement = RetryAfterPlacement::kNone;
    if (argText) {
      std::string_view digits = *argText;
      rule.placement = RetryAfterPlacement::kHeaderAndBody;
      if (!digits.empty() && digits.back() == 'h') {
        rule.placement = RetryAfterPlacement::kHeaderOnly;
        digits.remove_suffix(1);
      } else if (!digits.empty() && digits.back() == 'b') {
        rule.placement = RetryAfterPlacement::kBodyOnly;
        digits.remove_suffix(1);
      }
      uint32_t seconds = 0;
      if (!parseWhole(digits, seconds)) return fail("Retry-After must be whole seconds");
      rule.argument = seconds;
    }
  } else if (rule.kind == FaultKind::kLatency) {
    uint32_t ms = 0;
    if (!argText || !parseWhole(*argText, ms)) return fail("latency needs milliseconds as ARG");
    rule.argument = ms;
  } else if (argText) {
    return fail("this kind takes no ARG");
  }
  if (rule.kind == FaultKind::kReset && rule.route != "*" &&
      rule.route != "files/list_folder/continue") {
    return fail("reset applies to files/list_folder/continue only");
  }
  return rule;
}

}  // namespace wdc::emu
