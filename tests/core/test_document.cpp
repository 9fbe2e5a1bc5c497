#include <gtest/gtest.h>

#include <array>

#include "core/document.hpp"

namespace health {
namespace {

TEST(UsageCounts, KeysDifferByEveryPart) {
    UsageCounts usage;
    std::array tool{'t', '\0'};  // the map must keep texts of its own
    usage.record_call({tool.data(), std::nullopt, "ok", false}, std::nullopt);
    usage.record_call({tool.data(), "", "ok", false}, 0.0);
    usage.record_call({tool.data(), "", "ok", true}, 1.5);
    usage.record_call({tool.data(), "", "ok", true}, 1.0);
    tool[0] = '?';
    ASSERT_EQ(usage.entries().size(), 3U);
    const auto& untimed = usage.entries().at({"t", std::nullopt, "ok", false});
    EXPECT_EQ(untimed.timed_calls, 0);
    EXPECT_EQ(usage.entries().at({"t", "", "ok", false}).timed_calls, 1);
    EXPECT_EQ(usage.entries().at({"t", "", "ok", true}).total_ms, 2.5);
    EXPECT_EQ(usage.take_changes()->size(), 3U);
    EXPECT_FALSE(usage.take_changes());
}

TEST(UsageDocument, HasTheSevenMembersInOrder) {
    UsageCounts usage;
    EXPECT_EQ(write_usage_document(usage.snapshot()), "[]");
    usage.seed({"status", "perf_stats", "ok", false}, {12, 12, 41.87650000001});
    usage.seed({"q\"\\\n\x7f", std::nullopt, "\u00e9\U0001f600\xed\xa0\x80", true}, {2, 0, 0.0});
    EXPECT_EQ(write_usage_document(usage.snapshot()),
              R"([{"tool":"status","action":"perf_stats","outcome":"ok","alias_hit":false,)"
              R"("calls":12,"timed_calls":12,"total_ms":41.877},)"
              R"({"tool":"q\"\\\n\u007f","action":null,"outcome":"\u00e9\ud83d\ude00\ud800",)"
              R"("alias_hit":true,"calls":2,"timed_calls":0,"total_ms":0.0}])");
}

}  // namespace
}  // namespace health
