// What is known about each tool's health, and the rules that disable a tool and bring it back.
#pragma once

#include <tsl/ordered_map.h>
#include <cstddef>
#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "core/number.hpp"
#include "core/text.hpp"
#include "core/timestamp.hpp"

namespace health {

// A text. A row that somebody edited may hold another value, which the caller writes as bytes.
struct ErrorValue {
    std::string bytes;
    bool is_text = true;
};

// None when null. Copies share the value, which never changes.
using LastError = std::shared_ptr<const ErrorValue>;

// Times are epoch seconds.
struct ToolState {
    Count call_count = 0;
    Count error_count = 0;
    LastError last_error{};
    double updated_at = 0.0;              // 0.0 when not known
    Count consecutive_errors = 0;         // since the last success or re-enabling; never stored
    std::optional<double> disabled_at{};  // nothing while the tool is enabled
};

// A tool's health as the mirror and the summary show it. The name is the map's own: it stays valid
// as long as the map.
struct HealthRow {
    HashedText tool;
    Count call_count;
    Count error_count;
    LastError last_error;
    std::optional<TimestampText> disabled_at;
    TimestampText updated_at;
};

// Throws as format_timestamp does.
HealthRow health_row(const HashedText& tool, const ToolState& state);

// The state of every tool seen, in the order in which they were first seen, and which of them
// changed since they were last taken for a write. Entries are never removed. An operation that
// throws std::bad_alloc has changed nothing.
class ToolStates {
public:
    void record_success(const HashedText& tool, double now);

    // The error that makes a run of at least `disable_after` disables the tool, and so does each
    // one after it. Without `disable_after` (the setting could not be read) the error is counted,
    // but nothing that depends on the setting happens: the tool is neither disabled nor marked
    // changed.
    void record_error(const HashedText& tool, std::string_view error, double now,
                      std::optional<double> disable_after);

    // An entry's index. Entries are never removed, so it stays valid.
    using Position = std::ptrdiff_t;
    static constexpr Position kNone = -1;

    // The position of a tool that is disabled.
    std::optional<Position> find_disabled(const HashedText& tool) const;

    // Enables the tool at that position if its cooldown has passed. Its last error if it is still
    // disabled; nothing if it is enabled.
    std::optional<LastError> enable_if_cooled_down(Position position, double now,
                                                   double cooldown_s);

    // Installs a stored state, which counts as saved.
    void seed(const HashedText& tool, ToolState state);

    bool has_changes() const { return latest_change_ != kNone; }

    // The names of the changed tools, in order.
    std::vector<HashedText> changed() const;

    // The changed tools' rows by name; none of them counts as changed afterwards. Throws
    // as format_timestamp does (and they do not count as changed then either).
    std::vector<HealthRow> take_changes();

    // Marks the tools of rows that could not be written as changed again.
    void restore_changes(std::span<const HealthRow> rows);

    // The changed entries are linked, the latest first: neither marking nor taking looks at others.
    struct Entry : ToolState {
        bool changed = false;
        Position earlier_change = kNone;
    };
    using Item = std::pair<HashedText, Entry>;
    using Map = tsl::ordered_map<HashedText, Entry, TextHash, std::equal_to<>, std::allocator<Item>,
                                 std::vector<Item>>;

    const Map& entries() const { return entries_; }

private:
    Map::iterator find_or_insert(const HashedText& tool);
    void mark_changed(Map::iterator entry);

    TextStore texts_;  // of the map's keys
    Map entries_;
    Position latest_change_ = kNone;
};

}  // namespace health
