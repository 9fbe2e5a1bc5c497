// The read-out of a tracker's memory: every tool, the worst first, with its usage.
#pragma once

#include <optional>
#include <vector>

#include "core/tool_states.hpp"
#include "core/usage.hpp"

namespace health {

struct UsageRow {
    const UsageKey* key;
    Count calls;
    std::optional<double> avg_ms;  // nothing when no call reported a time
    bool slow = false;             // for the caller to fill in
};

struct ToolSummary {
    HealthRow health;
    std::vector<UsageRow> usage;
};

// Every tool with a state or a count, most errors first, then most calls; each with its usage
// rows in the order in which their keys were first met.
std::vector<ToolSummary> summarize(const ToolStates& states, const UsageCounts& usage);

// The usage rows of one tool, in the same order.
std::vector<UsageRow> usage_rows(const UsageCounts& usage, const HashedText& tool);

// Most calls first, then by action (none reads as "None"), outcome and use of a synonym.
void sort_usage(std::vector<UsageRow>& rows);

}  // namespace health
