#include "core/tool_states.hpp"

#include <algorithm>

namespace health {
namespace {

// A tool tends to fail the same way again: the text is copied only when it is another one.
void keep_error(LastError& kept, std::string_view error) {
    const auto* text = kept ? std::get_if<std::string>(kept.get()) : nullptr;
    if (text == nullptr || *text != error) {
        kept = std::make_shared<const ErrorValue>(std::in_place_type<std::string>, error);
    }
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
    auto entry = find_or_insert(tool);
    auto& state = entry.value();
    increment(state.call_count);
    state.consecutive_errors = 0;
    state.disabled_at.reset();
    state.updated_at = now;
    mark_changed(entry);
}

void ToolStates::record_error(const HashedText& tool, std::string_view error, double now,
                              std::optional<Count> disable_after) {
    auto entry = find_or_insert(tool);
    auto& state = entry.value();
    // First, as it may run out of memory: then nothing is counted.
    keep_error(state.last_error, first_code_points(error, kLastErrorLength));
    increment(state.call_count);
    increment(state.error_count);
    increment(state.consecutive_errors);
    state.updated_at = now;
    if (!disable_after) {
        return;
    }
    if (state.consecutive_errors >= *disable_after) {
        state.disabled_at = state.updated_at;
    }
    mark_changed(entry);
}

std::optional<Disablement> ToolStates::disablement(const HashedText& tool) const {
    const auto entry = entries_.find(tool);
    if (entry == entries_.end() || !entry.value().disabled_at) {
        return std::nullopt;
    }
    const auto& state = entry.value();
    return Disablement{*state.disabled_at, state.last_error};
}

bool ToolStates::reenable(const HashedText& tool, double since, double now) {
    auto entry = entries_.find(tool);
    if (entry == entries_.end() || entry.value().disabled_at != since) {
        return false;
    }
    auto& state = entry.value();
    state.consecutive_errors = 0;
    state.disabled_at.reset();
    state.updated_at = now;
    mark_changed(entry);
    return true;
}

void ToolStates::seed(const HashedText& tool, ToolState state) {
    auto entry = find_or_insert(tool);
    static_cast<ToolState&>(entry.value()) = std::move(state);
}

std::vector<HealthRow> ToolStates::take_changes() {
    auto positions = changed();
    std::vector<HealthRow> rows;
    rows.reserve(positions.size());
    for (const auto position : positions) {
        entries_.nth(position).value().next_changed = kUnchanged;
    }
    first_changed_ = kEndOfChain;
    std::sort(positions.begin(), positions.end(), [&](Position left, Position right) {
        return entries_.nth(left).key().text < entries_.nth(right).key().text;
    });
    for (const auto position : positions) {
        auto entry = entries_.nth(position);
        rows.push_back(health_row(entry.key(), entry.value()));
    }
    return rows;
}

void ToolStates::restore_changes(std::span<const HealthRow> rows) {
    for (const auto& row : rows) {
        mark_changed(entries_.find(row.tool));
    }
}

std::vector<std::string_view> ToolStates::changed_tools() const {
    std::vector<std::string_view> tools;
    for (const auto position : changed()) {
        tools.push_back(entries_.nth(position).key().text);
    }
    return tools;
}

ToolStates::Map::iterator ToolStates::find_or_insert(const HashedText& tool) {
    const auto entry = entries_.find(tool);
    return entry != entries_.end() ? entry : entries_.try_emplace(texts_.keep(tool)).first;
}

void ToolStates::mark_changed(Map::iterator entry) {
    if (entry.value().next_changed == kUnchanged) {
        entry.value().next_changed = first_changed_;
        first_changed_ = static_cast<Position>(entry - entries_.begin());
    }
}

std::vector<ToolStates::Position> ToolStates::changed() const {
    std::vector<Position> positions;
    auto position = first_changed_;
    while (position != kEndOfChain) {
        positions.push_back(position);
        position = entries_.nth(position).value().next_changed;
    }
    return positions;
}

}  // namespace health
