#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <random>
#include <string>

#include "core/number.hpp"
#include "core/text.hpp"
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

TEST(Number, RoundsTheExactValueTiesToEven) {
    EXPECT_EQ(round_decimals(41.87650000001, 3), 41.877);
    EXPECT_EQ(round_decimals(1.0005, 3), 1.0);
    EXPECT_EQ(round_decimals(0.0625, 3), 0.062);
    EXPECT_EQ(round_decimals(0.1875, 3), 0.188);
    EXPECT_EQ(round_decimals(10.0 / 3, 2), 3.33);
    EXPECT_EQ(round_decimals(0.125, 2), 0.12);
    EXPECT_EQ(round_decimals(0.375, 2), 0.38);
    EXPECT_EQ(round_decimals(5.35 / 2, 2), 2.67);
    EXPECT_EQ(round_decimals(1.7e308, 3), 1.7e308);
    EXPECT_EQ(round_decimals(4503599627370495.5, 3), 4503599627370495.5);
    EXPECT_TRUE(std::isnan(round_decimals(std::nan(""), 2)));
}

TEST(Number, ACountStaysAtItsLimit) {
    Count count = std::numeric_limits<Count>::max() - 1;
    increment(count);
    increment(count);
    EXPECT_EQ(count, std::numeric_limits<Count>::max());
}

TEST(Text, IsCutBetweenCodePoints) {
    EXPECT_EQ(first_code_points("a\u00e9\u20ac\U0001f600z", 4), "a\u00e9\u20ac\U0001f600");
    EXPECT_EQ(first_code_points("\u20ac\u20ac", 2), "\u20ac\u20ac");
    EXPECT_EQ(first_code_points("\xed\xa0\x80\xed\xb0\x80", 1), "\xed\xa0\x80");  // lone surrogates
    EXPECT_EQ(first_code_points("abc", 0), "");
}

}  // namespace
}  // namespace health
