#include "core/tool_states.hpp"

#include <algorithm>

namespace health {
namespace {

bool is_text(const LastError& error, std::string_view text) {
    return error && error->is_text && error->bytes == text;
}

}  // namespace

HealthRow health_row(const HashedText& tool, const ToolState& state) {
    return {
        .tool = tool,
        .call_count = state.call_count,
        .error_count = state.error_count,
        .last_error = state.last_error,
        .disabled_at =
            state.disabled_at ? std::optional(format_timestamp(*state.disabled_at)) : std::nullopt,
        .updated_at = format_timestamp(state.updated_at),
    };
}

void ToolStates::record_success(const HashedText& tool, double now) {
    auto known = find_or_insert(tool);
    auto& entry = known.value();
    increment(entry.call_count);
    entry.consecutive_errors = 0;
    entry.disabled_at.reset();
    entry.updated_at = now;
    mark_changed(known);
}

void ToolStates::record_error(const HashedText& tool, std::string_view error, double now,
                              std::optional<double> disable_after) {
    // All that needs memory comes first. A tool tends to fail the same way again: the text is
    // copied only when it is another one.
    auto known = entries_.find(tool);
    LastError another;
    if (known == entries_.end() || !is_text(known.value().last_error, error)) {
        another = std::make_shared<const ErrorValue>(ErrorValue{std::string(error)});
    }
    if (known == entries_.end()) {
        known = find_or_insert(tool);
    }
    auto& entry = known.value();
    if (another) {
        entry.last_error = std::move(another);
    }
    increment(entry.call_count);
    increment(entry.error_count);
    increment(entry.consecutive_errors);
    entry.updated_at = now;
    if (!disable_after) {
        return;
    }
    if (static_cast<double>(entry.consecutive_errors) >= *disable_after) {
        entry.disabled_at = entry.updated_at;
    }
    mark_changed(known);
}

std::optional<ToolStates::Position> ToolStates::find_disabled(const HashedText& tool) const {
    const auto entry = entries_.find(tool);
    if (entry == entries_.end() || !entry.value().disabled_at) {
        return std::nullopt;
    }
    return entry - entries_.begin();
}

std::optional<LastError> ToolStates::enable_if_cooled_down(Position position, double now,
                                                           double cooldown_s) {
    auto known = entries_.begin() + position;
    auto& entry = known.value();
    if (!entry.disabled_at) {
        return std::nullopt;
    }
    if (!(now - *entry.disabled_at >= cooldown_s)) {
        return entry.last_error;
    }
    entry.consecutive_errors = 0;
    entry.disabled_at.reset();
    entry.updated_at = now;
    mark_changed(known);
    return std::nullopt;
}

void ToolStates::seed(const HashedText& tool, ToolState state) {
    static_cast<ToolState&>(find_or_insert(tool).value()) = std::move(state);
}

std::vector<HashedText> ToolStates::changed() const {
    std::vector<HashedText> tools;
    for (auto at = latest_change_; at != kNone;
         at = (entries_.begin() + at)->second.earlier_change) {
        tools.push_back((entries_.begin() + at)->first);
    }
    std::sort(tools.begin(), tools.end(),
              [](const auto& left, const auto& right) { return left.text < right.text; });
    return tools;
}

std::vector<HealthRow> ToolStates::take_changes() {
    const auto tools = changed();
    std::vector<HealthRow> rows;
    rows.reserve(tools.size());
    latest_change_ = kNone;
    for (const auto& tool : tools) {
        entries_.find(tool).value().changed = false;
    }
    for (const auto& tool : tools) {
        rows.push_back(health_row(tool, entries_.find(tool).value()));
    }
    return rows;
}

void ToolStates::restore_changes(std::span<const HealthRow> rows) {
    for (const auto& row : rows) {
        mark_changed(entries_.find(row.tool));
    }
}

ToolStates::Map::iterator ToolStates::find_or_insert(const HashedText& tool) {
    const auto known = entries_.find(tool);
    return known == entries_.end() ? entries_.try_emplace(texts_.keep(tool)).first : known;
}

void ToolStates::mark_changed(Map::iterator entry) {
    if (!std::exchange(entry.value().changed, true)) {
        entry.value().earlier_change = std::exchange(latest_change_, entry - entries_.begin());
    }
}

}  // namespace health
