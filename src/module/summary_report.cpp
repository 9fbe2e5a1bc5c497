// The summary of all tools' health.
#include <initializer_list>
#include <utility>
#include <vector>

#include "core/summary.hpp"
#include "module/collaborators.hpp"
#include "module/operation.hpp"
#include "module/tracker.hpp"
#include "module/values.hpp"

namespace health {
namespace {

PyDoc_STRVAR(kGetHealthSummaryDoc, R"(get_health_summary($self)
--

Every tool with its health and usage, as a new list of dicts: most errors
first, then most calls.

Each has tool_name, call_count, error_count, last_error, disabled, disabled_at
and updated_at (UTC, "YYYY-MM-DD HH:MM:SS") and usage: a list of dicts with
action, outcome, alias_hit, calls, avg_ms (milliseconds, two decimals; None
when no call reported a time) and slow, most calls first.

Whatever is_slow_call raises is passed on.)");

// A new dict, its keys in the given order.
Ref make_map(const Names& names, std::initializer_list<std::pair<Name, Ref>> items) {
    auto map = owned(PyDict_New());
    for (const auto& [name, value] : items) {
        map.set_item(names[name], value);
    }
    return map;
}

// Asks the daemon which calls are slow by nature.
class SlowCalls {
public:
    // Before the lock is taken: importing what is asked runs Python at length.
    explicit SlowCalls(const ModuleState& module)
        : not_found_(
              exception_of([&] { is_slow_call_ = find_collaborator(module, kIsSlowCall); })) {}

    // About the rows of one tool. That there is nobody to ask matters only here.
    void ask(std::vector<UsageRow>& rows) {
        for (auto& row : rows) {
            raise_if(not_found_);
            auto answer = is_slow_call_(to_python(row.key->tool), to_python(row.key->action));
            row.slow = truth(answer);
            if (!PyBool_Check(answer.get())) {
                answers_.push_back(std::move(answer));
            }
            pacer_.step();
        }
    }

private:
    Ref is_slow_call_;
    Ref not_found_;
    std::vector<Ref> answers_;  // each may run any code as it goes, which must not be locked out
    Pacer pacer_;
};

Ref answer(const Names& names, const UsageRow& row) {
    return make_map(names, {{Name::action, to_python(row.key->action)},
                            {Name::outcome, to_python(row.key->outcome)},
                            {Name::alias_hit, to_python(row.key->alias_hit)},
                            {Name::calls, to_python(row.calls)},
                            {Name::avg_ms, to_python(row.avg_ms)},
                            {Name::slow, to_python(row.slow)}});
}

Ref answer(const Names& names, const std::vector<UsageRow>& rows, Pacer& pacer) {
    auto answers = owned(PyList_New(0));
    for (const auto& row : rows) {
        checked(PyList_Append(answers, answer(names, row)));
        pacer.step();
    }
    return answers;
}

Ref answer(const Names& names, const ToolSummary& tool, Pacer& pacer) {
    const auto& health = tool.health;
    return make_map(names, {{Name::tool_name, to_python(health.tool)},
                            {Name::call_count, to_python(health.call_count)},
                            {Name::error_count, to_python(health.error_count)},
                            {Name::last_error, to_python(health.last_error)},
                            {Name::disabled, to_python(health.disabled_at.has_value())},
                            {Name::disabled_at, to_python(health.disabled_at)},
                            {Name::updated_at, to_python(health.updated_at)},
                            {Name::usage, answer(names, tool.usage, pacer)}});
}

Ref get_health_summary(Tracker& tracker) {
    SlowCalls slow_calls(tracker.module);
    auto tools = tracker.health.run_calling_python([&](const Health& health) {
        auto gathered = without_gil([&] { return summarize(health.states, health.usage); });
        for (auto& tool : gathered) {
            slow_calls.ask(tool.usage);
        }
        return gathered;
    });
    without_gil([&] {
        for (auto& tool : tools) {
            sort_usage(tool.usage);
        }
    });
    auto answers = owned(PyList_New(0));
    Pacer pacer;
    for (const auto& tool : tools) {
        checked(PyList_Append(answers, answer(tracker.names, tool, pacer)));
        pacer.step();
    }
    free_without_gil(tools);
    return answers;
}

constexpr Signature<1> kUsageRowsSignature{"_usage_rows", {Name::tool_name}};

PyDoc_STRVAR(kUsageRowsDoc, R"(_usage_rows($self, tool_name)
--

One tool's usage, as in the summary: a new list of dicts, empty for a tool that
was never called.)");

Ref tool_usage_rows(Tracker& tracker, PyObject* tool_name) {
    const Text tool(text_argument(kUsageRowsSignature, Name::tool_name, tool_name));
    SlowCalls slow_calls(tracker.module);
    auto rows = tracker.health.run_calling_python([&](const Health& health) {
        auto gathered = without_gil([&] { return usage_rows(health.usage, tool); });
        slow_calls.ask(gathered);
        return gathered;
    });
    without_gil([&] { sort_usage(rows); });
    Pacer pacer;
    return answer(tracker.names, rows, pacer);
}

}  // namespace

Methods summary_methods() {
    return {
        method<get_health_summary>("get_health_summary", kGetHealthSummaryDoc),
        method<tool_usage_rows, kUsageRowsSignature>(kUsageRowsDoc),
    };
}

}  // namespace health
