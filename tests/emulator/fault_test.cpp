// Fault rules as `wdc emulator --fault` takes them, and the injector's choice per request:
// scripted counts, seeded probabilities, latency that adds up, reset only where it means something.
#include <gtest/gtest.h>

#include "emulator/emulator.h"
#include "emulator/fault_injector.h"

namespace wdc::emu {
namespace {

struct RuleCase {
  const char* text;
  const char* route;
  FaultKind kind;
  std::optional<uint32_t> argument;
  RetryAfterPlacement placement;
  double probability;
  std::optional<uint64_t> count;
};

TEST(FaultRuleText, ParsesEveryKindAndSuffix) {
  using enum FaultKind;
  using P = RetryAfterPlacement;
  const RuleCase cases[] = {
      {"*:429:1@0.1", "*", kTooManyRequests, 1, P::kHeaderAndBody, 0.1, {}},
      {"files/download:drop@0.05", "files/download", kDrop, {}, P::kHeaderAndBody, 0.05, {}},
      {"files/download:429:2#3", "files/download", kTooManyRequests, 2, P::kHeaderAndBody, 1, 3},
      {"files/upload:429", "files/upload", kTooManyRequests, {}, P::kNone, 1, {}},
      {"files/upload:429w:5h", "files/upload", kTooManyWriteOperations, 5, P::kHeaderOnly, 1, {}},
      {"files/upload:429:0b@1#1", "files/upload", kTooManyRequests, 0, P::kBodyOnly, 1, 1},
      {"/files/list_folder:500", "files/list_folder", kInternalError, {}, P::kHeaderAndBody, 1, {}},
      {"*:503@0", "*", kUnavailable, {}, P::kHeaderAndBody, 0, {}},
      {"files/download_zip:truncate",
       "files/download_zip",
       kTruncate,
       {},
       P::kHeaderAndBody,
       1,
       {}},
      {"files/list_folder/continue:reset#2",
       "files/list_folder/continue",
       kReset,
       {},
       P::kHeaderAndBody,
       1,
       2},
      {"*:latency:250", "*", kLatency, 250, P::kHeaderAndBody, 1, {}},
  };
  for (const RuleCase& c : cases) {
    SCOPED_TRACE(c.text);
    std::string error;
    const std::optional<FaultRule> rule = parseFaultRule(c.text, &error);
    ASSERT_TRUE(rule) << error;
    EXPECT_EQ(rule->route, c.route);
    EXPECT_EQ(rule->kind, c.kind);
    EXPECT_EQ(rule->argument, c.argument);
    if (c.kind == kTooManyRequests || c.kind == kTooManyWriteOperations) {
      EXPECT_EQ(rule->placement, c.placement);
    }
    EXPECT_DOUBLE_EQ(rule->probability, c.probability);
    EXPECT_EQ(rule->count, c.count);
  }
}

TEST(FaultRuleText, RejectsMalformedRulesWithAReason) {
  for (const char* text :
       {"", "files/download", ":429", "*:418", "*:429:x", "*:429:-1", "*:latency", "*:latency:fast",
        "*:500:3", "*:drop@1.5", "*:drop@", "*:drop@nan", "*:drop#0", "*:drop#", "*:drop#-2",
        "files/download:reset", "*:429:99999999999"}) {
    SCOPED_TRACE(text);
    std::string error;
    EXPECT_FALSE(parseFaultRule(text, &error));
    EXPECT_NE(error.find("bad fault rule"), std::string::npos);
  }
}

TEST(FaultInjector, ScriptedCountAppliesToTheNextMatchingRequestsOnly) {
  FaultInjector injector(1);
  injector.add(FaultRule{
      .route = "files/download", .kind = FaultKind::kTooManyRequests, .argument = 2, .count = 3});
  EXPECT_FALSE(injector.decide("files/upload").fault);
  for (int i = 0; i < 3; ++i) {
    const FaultDecision decision = injector.decide("files/download");
    ASSERT_TRUE(decision.fault) << i;
    EXPECT_EQ(decision.fault->argument, 2u);
  }
  EXPECT_FALSE(injector.decide("files/download").fault);
}

TEST(FaultInjector, FirstMatchingRuleWinsAndLatencyAddsUp) {
  FaultInjector injector(1);
  injector.add(FaultRule{.route = "*", .kind = FaultKind::kLatency, .argument = 30});
  injector.add(FaultRule{.route = "files/upload", .kind = FaultKind::kInternalError, .count = 1});
  injector.add(FaultRule{.route = "*", .kind = FaultKind::kUnavailable, .count = 1});
  injector.add(FaultRule{.route = "files/upload", .kind = FaultKind::kLatency, .argument = 5});
  FaultDecision first = injector.decide("files/upload");
  ASSERT_TRUE(first.fault);
  EXPECT_EQ(first.fault->kind, FaultKind::kInternalError);
  EXPECT_EQ(first.latencyMs, 35u);
  // The 503 rule was not used by the first request: it still has its one shot.
  FaultDecision second = injector.decide("files/upload");
  ASSERT_TRUE(second.fault);
  EXPECT_EQ(second.fault->kind, FaultKind::kUnavailable);
  EXPECT_FALSE(injector.decide("files/upload").fault);
}

TEST(FaultInjector, ResetOnlyHitsListFolderContinue) {
  FaultInjector injector(1);
  injector.add(FaultRule{.route = "*", .kind = FaultKind::kReset, .count = 1});
  EXPECT_FALSE(injector.decide("files/list_folder").fault);
  ASSERT_TRUE(injector.decide("files/list_folder/continue").fault);
}

TEST(FaultInjector, ProbabilityDrawsAreReproducibleFromTheSeed) {
  auto pattern = [](uint64_t seed) {
    FaultInjector injector(seed);
    injector.add(FaultRule{.route = "*", .kind = FaultKind::kDrop, .probability = 0.25});
    std::string hits;
    for (int i = 0; i < 2000; ++i) hits += injector.decide("files/download").fault ? '1' : '0';
    return hits;
  };
  const std::string first = pattern(7);
  EXPECT_EQ(first, pattern(7));
  EXPECT_NE(first, pattern(8));
  const auto count = std::count(first.begin(), first.end(), '1');
  // 2000 draws at p = 0.25: 500 expected, standard deviation ~19.
  EXPECT_GT(count, 400);
  EXPECT_LT(count, 600);
}

TEST(FaultInjector, WildcardRulesSkipBatchEntries) {
  FaultInjector injector(1);
  injector.add(FaultRule{.route = "*", .kind = FaultKind::kTooManyWriteOperations, .count = 1});
  EXPECT_FALSE(injector.decide("files/delete_batch/entry", /*wildcard=*/false).fault);
  // The wildcard rule kept its one shot for a real request.
  EXPECT_TRUE(injector.decide("files/delete_v2").fault);
}

TEST(FaultInjector, ClearRemovesEveryRule) {
  FaultInjector injector(1);
  injector.add(FaultRule{.route = "*", .kind = FaultKind::kInternalError});
  injector.clear();
  EXPECT_FALSE(injector.decide("files/download").fault);
}

}  // namespace
}  // namespace wdc::emu
