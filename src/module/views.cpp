// A tracker's memory as Python sees it: new containers with copies of the records.
#include <string>
#include <utility>
#include <vector>

#include "module/tracker.hpp"
#include "module/values.hpp"

namespace health {
namespace {

template <class... Values>
Ref make_record(const Ref& type, const Values&... values) {
    return owned(PyObject_CallFunctionObjArgs(type.get(), to_python(values).get()..., nullptr));
}

}  // namespace

Ref state_view(Tracker& tracker) {
    const auto states = tracker.lock.run([&] {
        std::vector<std::pair<std::string_view, ToolState>> copies;
        for (const auto& [tool, entry] : tracker.states.entries()) {
            copies.emplace_back(tool.text, entry);
        }
        return copies;
    });
    auto map = owned(PyDict_New());
    for (const auto& [tool, state] : states) {
        const auto record = make_record(tracker.module.tool_state_type, state.call_count,
                                        state.error_count, state.last_error, state.disabled_at,
                                        std::optional(state.updated_at), state.consecutive_errors);
        checked(PyDict_SetItem(map.get(), to_python(tool).get(), record.get()));
    }
    return map;
}

Ref dirty_view(Tracker& tracker) {
    const auto tools = tracker.lock.run([&] { return tracker.states.changed_tools(); });
    auto set = owned(PySet_New(nullptr));
    for (const auto tool : tools) {
        checked(PySet_Add(set.get(), to_python(tool).get()));
    }
    return set;
}

Ref usage_view(Tracker& tracker) {
    const auto entries = tracker.lock.run([&] { return tracker.usage.snapshot(); });
    auto map = owned(PyDict_New());
    for (const auto& [key, usage] : entries) {
        const auto tuple = make_tuple(to_python(key->tool), to_python(key->action),
                                      to_python(key->outcome), to_python(key->alias_hit));
        const auto record = make_record(tracker.module.usage_type, usage.calls, usage.timed_calls,
                                        std::optional(usage.total_ms));
        checked(PyDict_SetItem(map.get(), tuple.get(), record.get()));
    }
    return map;
}

}  // namespace health
