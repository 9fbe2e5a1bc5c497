#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <random>
#include <string>

#include "core/timestamp.hpp"

namespace health {
namespace {

std::string text(double epoch) { return std::string(view(format_timestamp(epoch))); }

TEST(Timestamp, DropsTheFractionAfterRoundingToMicroseconds) {
    EXPECT_EQ(text(0.0), "1970-01-01 00:00:00");
    EXPECT_EQ(text(1700000000.5), "2023-11-14 22:13:20");
    EXPECT_EQ(text(0.9999994), "1970-01-01 00:00:00");
    EXPECT_EQ(text(0.9999996), "1970-01-01 00:00:01");
    EXPECT_EQ(text(-0.0000004), "1970-01-01 00:00:00");
    EXPECT_EQ(text(-0.000001), "1969-12-31 23:59:59");
    EXPECT_EQ(text(-0.9999999), "1969-12-31 23:59:59");
    EXPECT_EQ(text(951782400.0), "2000-02-29 00:00:00");
}

TEST(Timestamp, WritesTheYears1To9999Only) {
    EXPECT_EQ(text(-62135596800.0), "0001-01-01 00:00:00");
    EXPECT_EQ(text(253402300799.0), "9999-12-31 23:59:59");
    for (const double time : {-62135596801.0, 253402300800.0, 253402300799.9999999, 1e300,
                              std::nan(""), -std::numeric_limits<double>::infinity()}) {
        EXPECT_THROW(format_timestamp(time), UnwritableTime) << time;
    }
}

TEST(Timestamp, ReadsBackWhatItWrites) {
    std::mt19937_64 random(1);
    std::uniform_int_distribution<std::int64_t> seconds(-62135596800, 253402300799);
    for (int i = 0; i < 10'000; ++i) {
        const auto time = static_cast<double>(seconds(random));
        ASSERT_EQ(parse_timestamp(text(time)), time);
    }
}

TEST(Timestamp, ReadsALittleMoreThanItWrites) {
    EXPECT_EQ(parse_timestamp("2023-1-5 3:4:5"), 1672887845.0);
    EXPECT_EQ(parse_timestamp("2023-01- 5 03:04:05"), 1672887845.0);
    EXPECT_EQ(parse_timestamp("2023-01-05 \t\u2003\u00a003:04:05"), 1672887845.0);
}

TEST(Timestamp, RefusesAnythingElse) {
    for (const auto* wrong : {"",
                              "2023-11-14",
                              "2023-11-14T22:13:20",
                              "2023-11-14 22:13",
                              "2023-11-14 22:13:20 ",
                              " 2023-11-14 22:13:20",
                              "2023-02-30 00:00:00",
                              "2023-00-10 00:00:00",
                              "2023-13-10 00:00:00",
                              "2023-11-00 00:00:00",
                              "2023-11-14 24:00:00",
                              "2023-11-14 22:60:20",
                              "2023-11-14 22:13:60",
                              "0000-01-01 00:00:00",
                              "123-01-01 00:00:00",
                              "12023-01-01 00:00:00",
                              "2023-11-14 22:13:200",
                              "2023-11-  4 22:13:20",
                              "2023-11- 14 22:13:20",
                              "2023-11-1422:13:20",
                              "2023-1a-14 22:13:20"}) {
        EXPECT_EQ(parse_timestamp(wrong), std::nullopt) << wrong;
    }
}

}  // namespace
}  // namespace health
