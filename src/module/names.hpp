// The names that the module uses as keys, attributes and parameters, interned once a module.
#pragma once

#include <array>
#include <cstddef>

#include "module/python.hpp"

// clang-format off
#define HEALTH_NAMES(X)                                                                            \
    X(_flush_health) X(_flush_usage) X(_load) X(_load_usage) X(action) X(alias_hit) X(avg_ms)      \
    X(budget) X(call_count) X(calls) X(census) X(cooldown_s) X(count) X(db)                        \
    X(disable_after_errors) X(disable_cooldown_s) X(disabled) X(disabled_at) X(duration_ms)        \
    X(epoch) X(error) X(error_count) X(errors) X(execute) X(executemany) X(fetchall) X(fetchone)   \
    X(get) X(get_all_stats) X(last_error) X(limits) X(loads) X(logger) X(max_ms) X(min_ms)         \
    X(name) X(os) X(os_threads) X(outcome) X(p95_ms) X(python) X(python_by_name)                   \
    X(python_threads) X(python_total) X(repository) X(slow) X(text) X(timed_calls) X(tool)         \
    X(tool_name) X(tools) X(total_ms) X(updated_at) X(usage) X(warning)
// clang-format on

namespace health {

#define HEALTH_NAME(name) name,
enum class Name : std::size_t { HEALTH_NAMES(HEALTH_NAME) number_of_names };
#undef HEALTH_NAME

class Names {
public:
    Names();

    PyObject* operator[](Name name) const { return names_[static_cast<std::size_t>(name)].get(); }

private:
    std::array<Ref, static_cast<std::size_t>(Name::number_of_names)> names_;
};

}  // namespace health
