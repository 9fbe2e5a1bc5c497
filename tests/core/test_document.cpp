#include <gtest/gtest.h>

#include "core/document.hpp"

namespace health {
namespace {

const HashedText kOk = "ok";

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
