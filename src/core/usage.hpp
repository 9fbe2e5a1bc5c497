// How many calls each tool, action, outcome and use of a synonym had, and their handlers' time.
#pragma once

#include <tsl/ordered_map.h>
#include <tsl/ordered_set.h>
#include <cstddef>
#include <optional>
#include <vector>

#include "core/number.hpp"
#include "core/text.hpp"

namespace health {

// Refers to its texts. Those of a key in the map are the map's own, which stay where they are as
// long as it lives.
struct UsageKey {
    const HashedText* tool;
    const HashedText* action;  // null for a tool without actions
    const HashedText* outcome;
    bool alias_hit;

    bool operator==(const UsageKey& other) const;
};

struct UsageKeyHash {
    std::size_t operator()(const UsageKey& key) const noexcept;
};

struct Usage {
    Count calls = 0;
    Count timed_calls = 0;  // those that reported their handler's time
    double total_ms = 0.0;  // the sum of these times
};

struct UsageEntry {
    const UsageKey* key;
    Usage usage;
};

// The counts in the order in which their keys were first met, and whether any changed since
// they were last taken for a write. Entries are never removed and never move.
class UsageCounts {
public:
    void record_call(const UsageKey& key, std::optional<double> duration_ms);

    // Installs a stored count, replacing one with the same key. Does not count as a change.
    void seed(const UsageKey& key, const Usage& usage) { *find_or_insert(key) = usage; }

    // Takes over all stored counts; only where there are none yet.
    void adopt(UsageCounts stored);

    bool has_changes() const { return changed_; }
    void mark_changed(bool changed) { changed_ = changed; }

    // Every entry, and the counts do not count as changed afterwards; nothing if they did not
    // before.
    std::optional<std::vector<UsageEntry>> take_changes();

    std::vector<UsageEntry> snapshot() const;

    using Map = tsl::ordered_map<UsageKey, Usage, UsageKeyHash>;

    const Map& entries() const { return entries_; }

private:
    Usage* find_or_insert(const UsageKey& key);
    const HashedText* keep(const HashedText* text);

    // The keys repeat few texts many times, so each is kept once.
    TextStore store_;
    tsl::ordered_set<HashedText, TextHash> texts_;
    Map entries_;
    bool changed_ = false;
};

}  // namespace health
