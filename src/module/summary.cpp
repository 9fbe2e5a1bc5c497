// The answer for the status tool: every tool's health and usage.
#include <optional>
#include <vector>

#include "core/summary.hpp"
#include "module/answer_map.hpp"
#include "module/collaborators.hpp"
#include "module/tracker.hpp"
#include "module/values.hpp"

namespace health {
namespace {

// Asks for every row whether its call is slow by nature.
void ask_for_slow_calls(ToolSummary& tool, const Ref& is_slow_call) {
    const auto name = to_python(tool.health.tool);
    for (auto& row : tool.usage) {
        const auto action = to_python(row.key->action);
        const auto answer = owned(
            PyObject_CallFunctionObjArgs(is_slow_call.get(), name.get(), action.get(), nullptr));
        row.slow = checked(PyObject_IsTrue(answer.get())) != 0;
    }
}

// The summary, with is_slow_call looked up before: importing it runs Python at length. Nothing
// when it turns out to be needed and is null.
std::optional<std::vector<ToolSummary>> gather(Tracker& tracker, const Ref& is_slow_call) {
    const TrackerLock::HoldOverPython hold(tracker.lock);
    if (!is_slow_call && !tracker.usage.entries().empty()) {
        return std::nullopt;
    }
    std::vector<ToolSummary> tools;
    {
        const GilRelease others;
        tools = summarize(tracker.states, tracker.usage);
    }
    for (auto& tool : tools) {
        ask_for_slow_calls(tool, is_slow_call);
    }
    return tools;
}

Ref answer(const Names& names, const UsageRow& row) {
    return AnswerMap(names)
        .set(Name::action, row.key->action)
        .set(Name::outcome, row.key->outcome)
        .set(Name::alias_hit, row.key->alias_hit)
        .set(Name::calls, row.calls)
        .set(Name::avg_ms, row.avg_ms)
        .set(Name::slow, row.slow)
        .map();
}

Ref answer(const Names& names, const ToolSummary& tool, Pacer& pacer) {
    const auto& health = tool.health;
    const auto rows = owned(PyList_New(0));
    for (const auto& row : tool.usage) {
        checked(PyList_Append(rows.get(), answer(names, row).get()));
        pacer.step();
    }
    return AnswerMap(names)
        .set(Name::tool_name, health.tool)
        .set(Name::call_count, health.call_count)
        .set(Name::error_count, health.error_count)
        .set(Name::last_error, health.last_error)
        .set(Name::disabled, health.disabled_at.has_value())
        .set(Name::disabled_at, health.disabled_at)
        .set(Name::updated_at, std::optional(health.updated_at))
        .set(Name::usage, rows)
        .map();
}

}  // namespace

Ref get_health_summary(Tracker& tracker) {
    Ref is_slow_call;
    auto tools = gather(tracker, is_slow_call);
    if (!tools) {
        is_slow_call = collaborator(tracker.module, "tool_schemas", "is_slow_call");
        tools = gather(tracker, is_slow_call);
    }
    {
        const GilRelease others;
        for (auto& tool : *tools) {
            sort_usage(tool.usage);
        }
    }
    auto answers = owned(PyList_New(0));
    Pacer pacer;
    for (const auto& tool : *tools) {
        checked(PyList_Append(answers.get(), answer(tracker.module.names, tool, pacer).get()));
        pacer.step();
    }
    return answers;
}

}  // namespace health
