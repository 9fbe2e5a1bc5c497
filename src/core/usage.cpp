#include "core/usage.hpp"

#include <utility>

namespace health {
namespace {

constexpr std::size_t combine(std::size_t seed, std::size_t hash) {
    return (seed ^ hash) * 0x9E3779B97F4A7C15ULL;
}

}  // namespace

bool UsageKey::operator==(const UsageKey& other) const {
    const bool same_action = action == nullptr || other.action == nullptr
                                 ? action == other.action
                                 : *action == *other.action;
    return alias_hit == other.alias_hit && same_action && *tool == *other.tool &&
           *outcome == *other.outcome;
}

std::size_t UsageKeyHash::operator()(const UsageKey& key) const noexcept {
    auto hash = combine(key.tool->hash, key.alias_hit ? 1 : 0);
    hash = combine(hash, key.action == nullptr ? 0 : key.action->hash);
    hash = combine(hash, key.outcome->hash);
    return hash ^ hash >> 32U;  // the map looks at the low bits, the product mixes the high ones
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

void UsageCounts::adopt(UsageCounts stored) {
    store_ = std::move(stored.store_);
    texts_ = std::move(stored.texts_);
    entries_ = std::move(stored.entries_);
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
        const UsageKey kept{keep(key.tool), keep(key.action), keep(key.outcome), key.alias_hit};
        entry = entries_.try_emplace(kept).first;
    }
    return &entry.value();
}

const HashedText* UsageCounts::keep(const HashedText* text) {
    if (text == nullptr) {
        return nullptr;
    }
    const auto kept = texts_.find(*text);
    return kept != texts_.end() ? &*kept : &*texts_.insert(store_.keep(*text)).first;
}

}  // namespace health
