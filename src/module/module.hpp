// What one loaded module owns. The module may be loaded more than once in a process, under
// different names.
#pragma once

#include <array>
#include <cstddef>
#include <string>

#include "module/python.hpp"

// The names that the module uses as keys, attributes and parameters.
// clang-format off
#define HEALTH_NAMES(X)                                                                            \
    X(TOOLS) X(ToolsConfig) X(_ToolState) X(_Usage) X(_UsageKey) X(_flush_health) X(_flush_usage)  \
    X(_load) X(_load_usage) X(action) X(alias_hit) X(avg_ms) X(budget) X(call_count) X(calls)      \
    X(census) X(cooldown_s) X(count) X(db) X(disable_after_errors) X(disable_cooldown_s)           \
    X(disabled) X(disabled_at) X(duration_ms) X(epoch) X(error) X(error_count) X(errors)           \
    X(execute) X(executemany) X(fetchall) X(fetchone) X(get) X(getLogger) X(get_all_stats)         \
    X(get_timing_collector) X(is_slow_call) X(last_error) X(limits) X(loads) X(logger) X(max_ms)   \
    X(min_ms) X(name) X(os) X(os_threads) X(outcome) X(p95_ms) X(python) X(python_by_name)         \
    X(python_threads) X(python_total) X(repository) X(slow) X(text) X(thread_census) X(timed_calls) X(tool)      \
    X(tool_name) X(tools) X(total_ms) X(updated_at) X(usage) X(warning)
// clang-format on

namespace health {

#define HEALTH_NAME(name) name,
enum class Name : std::size_t { HEALTH_NAMES(HEALTH_NAME) number_of_names };
#undef HEALTH_NAME

#define HEALTH_NAME(name) #name,
inline constexpr std::array kNameTexts{HEALTH_NAMES(HEALTH_NAME)};
#undef HEALTH_NAME

constexpr const char* text(Name name) { return kNameTexts[static_cast<std::size_t>(name)]; }

// The names interned, once a module.
class Names {
public:
    Names();

    PyObject* operator[](Name name) const { return names_[static_cast<std::size_t>(name)]; }

private:
    std::array<Ref, kNameTexts.size()> names_;
};

struct ModuleState {
    PyObject* module;     // owns this state
    Ref name;             // as it was loaded, whatever becomes of the attribute
    std::string package;  // what the names of the daemon's modules start with
    Names names;
    Ref records;  // a dict with _ToolState and _Usage
    Ref enabled;  // (False, None), the answer of nearly every is_disabled
};

const ModuleState& state_of(PyObject* module);

// The state of the module whose class `type` is, or is derived from.
const ModuleState& state_of_class(PyTypeObject* type);

}  // namespace health
