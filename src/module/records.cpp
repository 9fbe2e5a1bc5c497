// A tracker's memory as Python sees it: records in new containers.
#include <string_view>
#include <utility>
#include <vector>

#include "module/operations.hpp"
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

using NamedState = std::pair<std::string_view, ToolState>;

std::vector<NamedState> copy_states(Tracker& tracker, bool changed_only) {
    return tracker.health.run_aside([&](Health& health) {
        std::vector<NamedState> copies;
        for (const auto& [tool, entry] : health.states.entries()) {
            if (entry.changed || !changed_only) {
                copies.emplace_back(tool.text, entry);
            }
        }
        return copies;
    });
}

Ref state(Tracker& tracker) {
    const auto& module = tracker.module;
    const auto type = module.records.item(module.names[Name::_ToolState]);
    auto map = owned(PyDict_New());
    for (const auto& [tool, state] : copy_states(tracker, false)) {
        const auto record = type(to_python(state.call_count), to_python(state.error_count),
                                 to_python(state.last_error), to_python(state.disabled_at),
                                 to_python(state.updated_at), to_python(state.consecutive_errors));
        checked(PyDict_SetItem(map, to_python(tool), record));
    }
    return map;
}

Ref dirty(Tracker& tracker) {
    auto set = owned(PySet_New(nullptr));
    for (const auto& [tool, state] : copy_states(tracker, true)) {
        checked(PySet_Add(set, to_python(tool)));
    }
    return set;
}

Ref usage(Tracker& tracker) {
    const auto entries =
        tracker.health.run_aside([](Health& health) { return health.usage.snapshot(); });
    const auto& module = tracker.module;
    const auto type = module.records.item(module.names[Name::_Usage]);
    auto map = owned(PyDict_New());
    for (const auto& [key, usage] : entries) {
        const auto tuple = make_tuple(to_python(key->tool), to_python(key->action),
                                      to_python(key->outcome), to_python(key->alias_hit));
        const auto record =
            type(to_python(usage.calls), to_python(usage.timed_calls), to_python(usage.total_ms));
        checked(PyDict_SetItem(map, tuple, record));
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

Properties record_properties() {
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
