// The names that the module uses as keys, attributes and parameters, interned once a module.
#pragma once

#include <array>
#include <cstddef>

#include "module/python.hpp"

// clang-format off
#define HEALTH_NAMES(X)                                                                            \
    X(TOOLS) X(ToolsConfig) X(_flush_health) X(_flush_usage) X(_load) X(_load_usage) X(action)     \
    X(alias_hit) X(avg_ms) X(call_count) X(calls) X(cooldown_s) X(db) X(disable_after_errors)      \
    X(disable_cooldown_s) X(disabled) X(disabled_at) X(duration_ms) X(epoch) X(error)              \
    X(error_count) X(execute) X(executemany) X(fetchall) X(fetchone) X(get) X(is_slow_call)        \
    X(last_error) X(limits) X(loads) X(logger) X(outcome) X(repository) X(slow) X(text)            \
    X(timed_calls) X(tool) X(tool_name) X(total_ms) X(updated_at) X(usage) X(warning)
// clang-format on

namespace health {

#define HEALTH_NAME(name) name,
enum class Name : std::size_t { HEALTH_NAMES(HEALTH_NAME) count };
#undef HEALTH_NAME

class Names {
public:
    Names();

    PyObject* operator[](Name name) const { return names_[static_cast<std::size_t>(name)].get(); }

private:
    std::array<cppy::ptr, static_cast<std::size_t>(Name::count)> names_;
};

}  // namespace health
