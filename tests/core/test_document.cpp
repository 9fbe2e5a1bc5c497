#include <gtest/gtest.h>

#include <array>

#include "core/document.hpp"

namespace health {
namespace {

const HashedText kOk = "ok";

TEST(UsageCounts, KeysDifferByEveryPart) {
    UsageCounts usage;
    std::array text{'t', '\0'};  // the map must keep texts of its own
    const HashedText tool(text.data());
    const HashedText empty("");
    usage.record_call({&tool, nullptr, &kOk, false}, std::nullopt);
    usage.record_call({&tool, &empty, &kOk, false}, 0.0);
    usage.record_call({&tool, &empty, &kOk, true}, 1.5);
    usage.record_call({&tool, &empty, &kOk, true}, 1.0);
    text[0] = '?';
    const HashedText again("t");
    ASSERT_EQ(usage.entries().size(), 3U);
    EXPECT_EQ(usage.entries().at({&again, nullptr, &kOk, false}).timed_calls, 0);
    EXPECT_EQ(usage.entries().at({&again, &empty, &kOk, false}).timed_calls, 1);
    EXPECT_EQ(usage.entries().at({&again, &empty, &kOk, true}).total_ms, 2.5);
    EXPECT_EQ(usage.take_changes()->size(), 3U);
    EXPECT_FALSE(usage.take_changes());
}

TEST(UsageDocument, HasTheSevenMembersInOrder) {
    UsageCounts usage;
    EXPECT_EQ(write_usage_document(usage.snapshot()), "[]");
    const HashedText status("status");
    const HashedText perf_stats("perf_stats");
    const HashedText escaped("q\"\\\n\x7f");
    const HashedText wide("\u00e9\U0001f600\xed\xa0\x80");
    usage.seed({&status, &perf_stats, &kOk, false}, {12, 12, 41.87650000001});
    usage.seed({&escaped, nullptr, &wide, true}, {2, 0, 0.0});
    EXPECT_EQ(write_usage_document(usage.snapshot()),
              R"([{"tool":"status","action":"perf_stats","outcome":"ok","alias_hit":false,)"
              R"("calls":12,"timed_calls":12,"total_ms":41.877},)"
              R"({"tool":"q\"\\\n\u007f","action":null,"outcome":"\u00e9\ud83d\ude00\ud800",)"
              R"("alias_hit":true,"calls":2,"timed_calls":0,"total_ms":0.0}])");
}

}  // namespace
}  // namespace health
