// The core without an interpreter. tests/test_rules.py compares all its rules with a plain class;
// here is what that cannot reach, and one life of each part for the sanitizers.
#include <gtest/gtest.h>

#include <stdexcept>
#include <string>

#include "core/tool_states.hpp"
#include "core/usage_document.hpp"

namespace health {
namespace {

// All texts collide: only comparing them tells them apart.
std::size_t hash_of(std::string_view /*text*/) { return 7; }

HashedText hashed(std::string_view text) { return {text, hash_of(text)}; }

TEST(Core, ATimeWithoutATextLosesTheMarksAndNothingElse) {
    ToolStates states;
    const auto tool = hashed("t");
    states.record_success(tool, 1e15);
    EXPECT_THROW(states.take_changes(), std::domain_error);
    EXPECT_FALSE(states.has_changes());
    states.record_error(tool, "e", -0.0000004, 1.0);
    const auto rows = states.take_changes();
    ASSERT_EQ(rows.size(), 1U);
    EXPECT_EQ(view(rows[0].updated_at), "1970-01-01 00:00:00");
    states.record_error(tool, "f", 5.0, 2.0);
    EXPECT_TRUE(states.enable_if_cooled_down(states.find_disabled(tool).value(), 9.0, 4.5));
    EXPECT_FALSE(states.enable_if_cooled_down(states.find_disabled(tool).value(), 9.0, 4.0));
    EXPECT_FALSE(states.find_disabled(tool));
}

TEST(Core, ADocumentIsReadInItsOwnFormOnly) {
    std::string document =
        R"([{"tool":"a\u00e9\ud83d\ude00\"\u0000","action":null,"outcome":"ok","alias_hit":false,)"
        R"("calls":-9223372036854775808,"timed_calls":0,"total_ms":1e+16})";
    const std::string rest = R"(,"alias_hit":true,"calls":1,"timed_calls":1,"total_ms":-0.125})";
    for (const auto* key :
         {R"("","action":null,"outcome":"")", R"("","action":"","outcome":"")",
          R"("","action":"","outcome":"x")", R"("x","action":"","outcome":"x")"}) {
        document += R"(,{"tool":)" + (key + rest);
    }
    document += ']';
    const auto counts = read_usage_document(document, hash_of);
    ASSERT_TRUE(counts);
    EXPECT_EQ(write_usage_document(counts->snapshot()), document);
    for (std::size_t size = 0; size < document.size(); ++size) {
        EXPECT_FALSE(read_usage_document(document.substr(0, size), hash_of)) << size;
    }
}

}  // namespace
}  // namespace health
