// A tracker's memory as Python sees it: records in new containers.
#include <utility>
#include <vector>

#include "module/operation.hpp"
#include "module/tracker.hpp"
#include "module/values.hpp"

namespace health {
namespace {

// Run when the module is loaded.
constexpr const char* kRecords = R"(
from dataclasses import dataclass

@dataclass
class _ToolState:
    """What is known about one tool's health; times in epoch seconds."""

    call_count: int = 0
    error_count: int = 0
    last_error: str | None = None
    disabled_at: float | None = None
    updated_at: float = 0.0
    consecutive_errors: int = 0

@dataclass
class _Usage:
    """The calls that one usage key counts, and their handlers' time."""

    calls: int = 0
    timed_calls: int = 0
    total_ms: float = 0.0

_UsageKey = tuple[str, str | None, str, bool]
)";

Ref state(Tracker& tracker) {
    const auto& module = tracker.module;
    const auto type = module.records.item(module.names[Name::_ToolState]);
    const auto states = tracker.health.run_without_gil([](const Health& health) {
        const auto& entries = health.states.entries();
        return std::vector<std::pair<HashedText, ToolState>>(entries.begin(), entries.end());
    });
    auto map = owned(PyDict_New());
    for (const auto& [tool, state] : states) {
        const auto record = type(to_python(state.call_count), to_python(state.error_count),
                                 to_python(state.last_error), to_python(state.disabled_at),
                                 to_python(state.updated_at), to_python(state.consecutive_errors));
        map.set_item(to_python(tool), record);
    }
    return map;
}

Ref dirty(Tracker& tracker) {
    const auto changed = tracker.health.run_without_gil(
        [](const Health& health) { return health.states.changed(); });
    auto set = owned(PySet_New(nullptr));
    for (const auto& tool : changed) {
        checked(PySet_Add(set, to_python(tool)));
    }
    return set;
}

Ref usage(Tracker& tracker) {
    const auto entries =
        tracker.health.run_without_gil([](Health& health) { return health.usage.snapshot(); });
    const auto& module = tracker.module;
    const auto type = module.records.item(module.names[Name::_Usage]);
    auto map = owned(PyDict_New());
    for (const auto& [key, usage] : entries) {
        const auto tuple = make_tuple(to_python(key->tool), to_python(key->action),
                                      to_python(key->outcome), to_python(key->alias_hit));
        const auto record =
            type(to_python(usage.calls), to_python(usage.timed_calls), to_python(usage.total_ms));
        map.set_item(tuple, record);
    }
    return map;
}

Ref usage_dirty(Tracker& tracker) {
    return to_python(
        tracker.health.run([](const Health& health) { return health.usage.has_changes(); }));
}

}  // namespace

Ref make_records(PyObject* module_name) {
    auto records = owned(Py_BuildValue("{sO}", "__name__", module_name));
    owned(PyRun_String(kRecords, Py_file_input, records, records));
    return records;
}

Properties view_properties() {
    return {
        property<state>("_state", "A copy of the tools' states: a dict of _ToolState by name."),
        property<dirty>("_dirty", "A copy of the set of tools to be written."),
        property<usage>(
            "_usage",
            "A copy of the counts: a dict of _Usage by (tool, action, outcome, alias_hit)."),
        property<usage_dirty>("_usage_dirty", "Whether the usage document is to be written."),
    };
}

}  // namespace health
