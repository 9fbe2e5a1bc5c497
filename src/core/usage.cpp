#include "core/usage.hpp"

namespace health {
namespace {

constexpr std::size_t combine(std::size_t seed, std::size_t hash) {
    return (seed ^ hash) * 0x9E3779B97F4A7C15ULL;
}

}  // namespace

std::size_t UsageKeyHash::operator()(const UsageKey& key) const noexcept {
    const TextHash hash;
    std::size_t result = combine(hash(key.tool), key.alias_hit ? 1 : 0);
    result = combine(result, key.action ? hash(*key.action) : 0);
    result = combine(result, hash(key.outcome));
    return result ^
           result >> 32U;  // the map looks at the low bits, the product mixes the high ones
}

void UsageCounts::record_call(const UsageKey& key, std::optional<double> duration_ms) {
    Usage& usage = *find_or_insert(key);
    increment(usage.calls);
    if (duration_ms) {
        increment(usage.timed_calls);
        usage.total_ms += *duration_ms;
    }
    changed_ = true;
}

std::optional<std::vector<UsageEntry>> UsageCounts::take_changes() {
    if (!changed_) {
        return std::nullopt;
    }
    auto entries = snapshot();
    changed_ = false;
    return entries;
}

std::vector<UsageEntry> UsageCounts::snapshot() const {
    std::vector<UsageEntry> entries;
    entries.reserve(entries_.size());
    for (const auto& [key, usage] : entries_) {
        entries.push_back({&key, usage});
    }
    return entries;
}

Usage* UsageCounts::find_or_insert(const UsageKey& key) {
    auto entry = entries_.find(key);
    if (entry == entries_.end()) {
        UsageKey kept = key;
        kept.tool = keep(key.tool);
        kept.outcome = keep(key.outcome);
        if (key.action) {
            kept.action = keep(*key.action);
        }
        entry = entries_.try_emplace(kept).first;
    }
    return &entry.value();
}

std::string_view UsageCounts::keep(std::string_view text) {
    const auto kept = texts_.find(text);
    return kept != texts_.end() ? *kept : *texts_.emplace(text).first;
}

}  // namespace health
