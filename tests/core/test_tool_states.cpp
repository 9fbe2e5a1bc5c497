#include <gtest/gtest.h>

#include <cmath>
#include <string>
#include <vector>

#include "core/tool_states.hpp"
#include "hashed.hpp"

namespace health {
namespace {

const ToolState& state(const ToolStates& states, const HashedText& tool) {
    return states.entries().at(tool);
}

std::vector<std::string> taken(ToolStates& states) {
    std::vector<std::string> tools;
    for (const auto& row : states.take_changes()) {
        tools.emplace_back(row.tool.text);
    }
    return tools;
}

// The last error of a disabled tool, which no cooldown brings back.
std::optional<LastError> disabled(ToolStates& states, const HashedText& tool) {
    const auto position = states.find_disabled(tool);
    return position ? states.check(*position, 1e9, 1e10) : std::nullopt;
}

const auto kTool = hashed("t");

TEST(ToolStates, TheErrorThatCompletesARunDisables) {
    ToolStates states;
    states.record_error(kTool, "first", 1.0, 2.5);
    states.record_error(kTool, "second", 2.0, 2.5);
    EXPECT_FALSE(disabled(states, kTool));
    states.record_success(kTool, 3.0);
    states.record_error(kTool, "a", 4.0, 3);
    states.record_error(kTool, "b", 5.0, 3);
    EXPECT_FALSE(disabled(states, kTool));
    states.record_error(kTool, "", 6.0, 3);
    EXPECT_EQ(state(states, kTool).disabled_at, 6.0);
    EXPECT_EQ(**disabled(states, kTool), ErrorValue(""));
    states.record_error(kTool, "later", 7.5, 3);
    EXPECT_EQ(state(states, kTool).disabled_at, 7.5);
    EXPECT_EQ(state(states, kTool).call_count, 7);
    EXPECT_EQ(state(states, kTool).error_count, 6);
    EXPECT_EQ(state(states, kTool).consecutive_errors, 4);
    states.record_success(kTool, 8.0);
    EXPECT_FALSE(disabled(states, kTool));
    EXPECT_EQ(*state(states, kTool).last_error, ErrorValue("later"));
}

TEST(ToolStates, ThePassedCooldownStartsANewRun) {
    ToolStates states;
    states.record_error(kTool, "e", 1.0, 2);
    states.record_error(kTool, "e", 2.0, 2);
    taken(states);
    const auto position = *states.find_disabled(kTool);
    for (const double cooldown : {7.5, 1e300, std::nan("")}) {
        EXPECT_TRUE(states.check(position, 9.0, cooldown));
    }
    EXPECT_FALSE(states.find_disabled(hashed("unknown")));
    EXPECT_FALSE(states.has_changes());
    EXPECT_FALSE(states.check(position, 9.0, 7.0));
    EXPECT_FALSE(states.check(position, 9.5, 7.0));  // somebody else was faster
    EXPECT_EQ(state(states, kTool).updated_at, 9.0);
    EXPECT_EQ(state(states, kTool).call_count, 2);
    EXPECT_EQ(taken(states), std::vector<std::string>{"t"});
    states.record_error(kTool, "e", 10.0, 2);
    EXPECT_FALSE(states.find_disabled(kTool));
}

TEST(ToolStates, ChangesAreTakenByNameAndCanBeRestored) {
    ToolStates states;
    states.seed(hashed("saved"), {});
    for (const auto* tool : {"b", "\xed\xa0\x80", "a", "\U0001f600", "c"}) {
        states.record_success(hashed(tool), 1.0);
        states.record_success(hashed(tool), 2.0);
    }
    const auto rows = states.take_changes();
    ASSERT_EQ(rows.size(), 5U);
    EXPECT_EQ(rows[0].tool.text, "a");
    EXPECT_EQ(rows[3].tool.text,
              "\xed\xa0\x80");  // by code point: a surrogate before what is above it
    EXPECT_EQ(view(rows[0].updated_at), "1970-01-01 00:00:02");
    EXPECT_FALSE(states.has_changes());
    states.record_success(hashed("d"), 3.0);
    states.record_success(hashed("a"), 3.0);
    states.restore_changes(rows);
    EXPECT_EQ(taken(states),
              (std::vector<std::string>{"a", "b", "c", "d", "\xed\xa0\x80", "\U0001f600"}));
}

TEST(ToolStates, AnUnwritableTimeLosesTheMarksAndNothingElse) {
    ToolStates states;
    states.record_success(kTool, 1e15);
    EXPECT_THROW(states.take_changes(), UnwritableTime);
    EXPECT_FALSE(states.has_changes());
    states.record_success(kTool, 1.0);
    EXPECT_EQ(taken(states), std::vector<std::string>{"t"});
}

}  // namespace
}  // namespace health
