#include "core/summary.hpp"

#include <algorithm>
#include <tuple>
#include <unordered_map>

namespace health {
namespace {

UsageRow usage_row(const UsageKey& key, const Usage& usage) {
    std::optional<double> avg_ms;
    if (usage.timed_calls != 0) {
        avg_ms = round_decimals(usage.total_ms / static_cast<double>(usage.timed_calls), 2);
    }
    return {.key = &key, .calls = usage.calls, .avg_ms = avg_ms};
}

}  // namespace

std::vector<ToolSummary> summarize(const ToolStates& states, const UsageCounts& usage) {
    std::vector<ToolSummary> tools;
    std::unordered_map<HashedText, std::size_t, TextHash> positions;
    tools.reserve(states.entries().size());
    positions.reserve(states.entries().size());
    for (const auto& [tool, entry] : states.entries()) {
        positions.emplace(tool, tools.size());
        tools.push_back({health_row(tool, entry), {}});
    }
    for (const auto& [key, counts] : usage.entries()) {
        const auto [position, is_new] = positions.emplace(*key.tool, tools.size());
        if (is_new) {
            tools.push_back({health_row(*key.tool, {}), {}});
        }
        tools[position->second].usage.push_back(usage_row(key, counts));
    }
    const auto badness = [](const ToolSummary& tool) {
        return std::tuple(tool.health.error_count, tool.health.call_count);
    };
    std::stable_sort(tools.begin(), tools.end(), [&](const auto& left, const auto& right) {
        return badness(left) > badness(right);
    });
    return tools;
}

std::vector<UsageRow> usage_rows(const UsageCounts& usage, const HashedText& tool) {
    std::vector<UsageRow> rows;
    for (const auto& [key, counts] : usage.entries()) {
        if (*key.tool == tool) {
            rows.push_back(usage_row(key, counts));
        }
    }
    return rows;
}

void sort_usage(std::vector<UsageRow>& rows) {
    const auto rank = [](const UsageRow& row) {
        const auto* action = row.key->action;
        return std::tuple(action == nullptr ? "None" : action->text, row.key->outcome->text,
                          row.key->alias_hit);
    };
    std::stable_sort(rows.begin(), rows.end(), [&](const UsageRow& left, const UsageRow& right) {
        return left.calls != right.calls ? left.calls > right.calls : rank(left) < rank(right);
    });
}

}  // namespace health
