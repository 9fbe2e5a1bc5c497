#include "module/records.hpp"

#include <string_view>
#include <utility>
#include <vector>

#include "module/operations.hpp"
#include "module/tracker.hpp"
#include "module/values.hpp"

namespace health {
namespace {

Ref make_record_type(PyObject* module_name, const char* name, const char* doc, const Ref& fields) {
    auto type = owned(PyObject_CallMethod(import_module("dataclasses"), "make_dataclass", "sO",
                                          name, fields.get()));
    checked(PyObject_SetAttrString(type, "__module__", module_name));
    checked(PyObject_SetAttrString(type, "__doc__", to_python(std::string_view(doc))));
    return type;
}

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
    const auto& type = tracker.module.tool_state_type;
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
    auto map = owned(PyDict_New());
    for (const auto& [key, usage] : entries) {
        const auto tuple = make_tuple(to_python(key->tool), to_python(key->action),
                                      to_python(key->outcome), to_python(key->alias_hit));
        const auto record = tracker.module.usage_type(
            to_python(usage.calls), to_python(usage.timed_calls), to_python(usage.total_ms));
        checked(PyDict_SetItem(map, tuple, record));
    }
    return map;
}

Ref usage_dirty(Tracker& tracker) {
    return to_python(
        tracker.health.run([](const Health& health) { return health.usage.has_changes(); }));
}

}  // namespace

Ref make_tool_state_type(PyObject* module_name) {
    return make_record_type(
        module_name, "_ToolState", "What is known about one tool's health; times in epoch seconds.",
        owned(Py_BuildValue("[(ssi)(ssi)(ssO)(ssO)(ssd)(ssi)]", "call_count", "int", 0,
                            "error_count", "int", 0, "last_error", "str | None", Py_None,
                            "disabled_at", "float | None", Py_None, "updated_at", "float", 0.0,
                            "consecutive_errors", "int", 0)));
}

Ref make_usage_type(PyObject* module_name) {
    return make_record_type(
        module_name, "_Usage", "The calls that one usage key counts, and their handlers' time.",
        owned(Py_BuildValue("[(ssi)(ssi)(ssd)]", "calls", "int", 0, "timed_calls", "int", 0,
                            "total_ms", "float", 0.0)));
}

Ref make_usage_key_type() {
    auto* text = reinterpret_cast<PyObject*>(&PyUnicode_Type);
    const auto optional_text = owned(PyNumber_Or(text, Py_None));
    const auto elements = owned(PyTuple_Pack(4, text, optional_text.get(), text, &PyBool_Type));
    return owned(Py_GenericAlias(reinterpret_cast<PyObject*>(&PyTuple_Type), elements));
}

const PyGetSetDef kState =
    property<state>("_state", "A copy of the tools' states: a dict of _ToolState by name.");
const PyGetSetDef kDirty = property<dirty>("_dirty", "A copy of the set of tools to be written.");
const PyGetSetDef kUsage = property<usage>(
    "_usage", "A copy of the counts: a dict of _Usage by (tool, action, outcome, alias_hit).");
const PyGetSetDef kUsageDirty =
    property<usage_dirty>("_usage_dirty", "Whether the usage document is to be written.");

}  // namespace health
