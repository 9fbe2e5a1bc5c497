// What is known about each tool's health, and the rules that disable a tool and bring it back.
#pragma once

#include <tsl/ordered_map.h>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <limits>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <utility>
#include <variant>
#include <vector>

#include "core/number.hpp"
#include "core/text.hpp"
#include "core/timestamp.hpp"

namespace health {

// How much of an error's text is kept, in code points.
inline constexpr std::size_t kLastErrorLength = 500;

struct Blob {
    std::string bytes;

    bool operator==(const Blob&) const = default;
};

// A last error: none when null, else a text. A row that somebody edited may hold another SQLite
// value, which is kept and given back as it is. Copies share the value, which never changes.
using ErrorValue = std::variant<std::string, Count, double, Blob>;
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

// Throws UnwritableTime.
HealthRow health_row(const HashedText& tool, const ToolState& state);

struct Disablement {
    double since;
    LastError last_error;
};

// The state of every tool seen, in the order in which they were first seen, and which of them
// changed since they were last taken for a write. Entries are never removed.
class ToolStates {
public:
    void record_success(const HashedText& tool, double now);

    // Without `disable_after` (the setting could not be read) the error is counted, but nothing
    // that depends on the setting happens: the tool is neither disabled nor marked changed.
    void record_error(const HashedText& tool, std::string_view error, double now,
                      std::optional<Count> disable_after);

    // Since when and with which last error `tool` is disabled; nothing when it is enabled.
    std::optional<Disablement> disablement(const HashedText& tool) const;

    // Re-enables a tool whose cooldown has passed. False, and nothing done, when it is not
    // disabled since `since` any more: somebody else was faster.
    bool reenable(const HashedText& tool, double since, double now);

    // Installs a stored state, which counts as saved.
    void seed(const HashedText& tool, ToolState state);

    bool has_changes() const { return first_changed_ != kEndOfChain; }

    // The changed tools' rows by name; none of them counts as changed afterwards. Throws
    // UnwritableTime (and they do not count as changed then either).
    std::vector<HealthRow> take_changes();

    // Marks the tools of rows that could not be written as changed again.
    void restore_changes(std::span<const HealthRow> rows);

    std::vector<std::string_view> changed_tools() const;

    // The changed entries are chained by their positions, so marking one never allocates.
    using Position = std::uint32_t;
    static constexpr Position kUnchanged = std::numeric_limits<Position>::max();
    static constexpr Position kEndOfChain = kUnchanged - 1;

    struct Entry : ToolState {
        Position next_changed = kUnchanged;
    };
    using Item = std::pair<HashedText, Entry>;
    using Map = tsl::ordered_map<HashedText, Entry, TextHash, std::equal_to<>, std::allocator<Item>,
                                 std::vector<Item>>;

    const Map& entries() const { return entries_; }

private:
    Map::iterator find_or_insert(const HashedText& tool);
    void mark_changed(Map::iterator entry);
    std::vector<Position> changed() const;

    TextStore texts_;  // of the map's keys
    Map entries_;
    Position first_changed_ = kEndOfChain;
};

}  // namespace health
