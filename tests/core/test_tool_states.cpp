#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "core/tool_states.hpp"

namespace health {
namespace {

const ToolState& state(const ToolStates& states, const char* tool) {
    return states.entries().at(tool);
}

std::vector<std::string> taken(ToolStates& states) {
    std::vector<std::string> tools;
    for (const auto& row : states.take_changes()) {
        tools.emplace_back(row.tool.text);
    }
    return tools;
}

TEST(ToolStates, TheErrorThatCompletesARunDisables) {
    ToolStates states;
    states.record_error("t", "first", 1.0, 3);
    states.record_error("t", "second", 2.0, 3);
    EXPECT_FALSE(states.disablement("t"));
    states.record_success("t", 3.0);
    states.record_error("t", "a", 4.0, 3);
    states.record_error("t", "b", 5.0, 3);
    EXPECT_FALSE(states.disablement("t"));
    states.record_error("t", "", 6.0, 3);
    EXPECT_EQ(states.disablement("t")->since, 6.0);
    EXPECT_EQ(*states.disablement("t")->last_error, ErrorValue(""));
    states.record_error("t", "later", 7.5, 3);
    EXPECT_EQ(states.disablement("t")->since, 7.5);
    EXPECT_EQ(state(states, "t").call_count, 7);
    EXPECT_EQ(state(states, "t").error_count, 6);
    EXPECT_EQ(state(states, "t").consecutive_errors, 4);
    states.record_success("t", 8.0);
    EXPECT_FALSE(states.disablement("t"));
    EXPECT_EQ(*state(states, "t").last_error, ErrorValue("later"));
}

TEST(ToolStates, ReenablingStartsANewRunOnceOnly) {
    ToolStates states;
    states.record_error("t", "e", 1.0, 2);
    states.record_error("t", "e", 2.0, 2);
    taken(states);
    EXPECT_FALSE(states.reenable("t", 1.0, 9.0));  // disabled again since
    EXPECT_FALSE(states.reenable("unknown", 1.0, 9.0));
    EXPECT_FALSE(states.has_changes());
    EXPECT_TRUE(states.reenable("t", 2.0, 9.0));
    EXPECT_FALSE(states.reenable("t", 2.0, 9.5));
    EXPECT_EQ(state(states, "t").updated_at, 9.0);
    EXPECT_EQ(state(states, "t").call_count, 2);
    EXPECT_EQ(taken(states), std::vector<std::string>{"t"});
    states.record_error("t", "e", 10.0, 2);
    EXPECT_FALSE(states.disablement("t"));
}

TEST(ToolStates, ChangesAreTakenByNameAndCanBeRestored) {
    ToolStates states;
    states.seed("saved", {});
    for (const auto* tool : {"b", "\xed\xa0\x80", "a", "\U0001f600", "c"}) {
        states.record_success(tool, 1.0);
        states.record_success(tool, 2.0);
    }
    const auto rows = states.take_changes();
    ASSERT_EQ(rows.size(), 5U);
    EXPECT_EQ(rows[0].tool.text, "a");
    EXPECT_EQ(rows[3].tool.text,
              "\xed\xa0\x80");  // by code point: a surrogate before what is above it
    EXPECT_EQ(view(rows[0].updated_at), "1970-01-01 00:00:02");
    EXPECT_FALSE(states.has_changes());
    states.record_success("d", 3.0);
    states.record_success("a", 3.0);
    states.restore_changes(rows);
    EXPECT_EQ(taken(states),
              (std::vector<std::string>{"a", "b", "c", "d", "\xed\xa0\x80", "\U0001f600"}));
}

TEST(ToolStates, AnUnwritableTimeLosesTheMarksAndNothingElse) {
    ToolStates states;
    states.record_success("t", 1e15);
    EXPECT_THROW(states.take_changes(), UnwritableTime);
    EXPECT_FALSE(states.has_changes());
    states.record_success("t", 1.0);
    EXPECT_EQ(taken(states), std::vector<std::string>{"t"});
}

}  // namespace
}  // namespace health
