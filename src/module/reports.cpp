// The answers for the daemon's status tools.
#include <initializer_list>
#include <optional>
#include <utility>
#include <vector>

#include "core/summary.hpp"
#include "module/collaborators.hpp"
#include "module/operations.hpp"
#include "module/tracker.hpp"
#include "module/values.hpp"

namespace health {
namespace {

void set(const Ref& map, PyObject* key, const Ref& value) {
    checked(PyDict_SetItem(map, key, value));
}

// A new dict, its keys in the given order.
Ref make_map(const Names& names, std::initializer_list<std::pair<Name, Ref>> items) {
    auto map = owned(PyDict_New());
    for (const auto& [name, value] : items) {
        set(map, names[name], value);
    }
    return map;
}

// The health of all tools

PyDoc_STRVAR(kGetHealthSummaryDoc, R"(get_health_summary($self)
--

Every tool with its health and usage, as a new list of dicts: most errors
first, then most calls.

Each has tool_name, call_count, error_count, last_error, disabled, disabled_at
and updated_at (UTC, "YYYY-MM-DD HH:MM:SS") and usage: a list of dicts with
action, outcome, alias_hit, calls, avg_ms (milliseconds, two decimals; None
when no call reported a time) and slow, most calls first.

Whatever is_slow_call raises is passed on.)");

// Asks for every row whether its call is slow by nature.
void ask_for_slow_calls(std::vector<ToolSummary>& tools, const Ref& is_slow_call) {
    Pacer pacer;
    for (auto& tool : tools) {
        const auto name = to_python(tool.health.tool);
        for (auto& row : tool.usage) {
            row.slow = truth(is_slow_call(name, to_python(row.key->action)));
            pacer.step();
        }
    }
}

// The summary, with is_slow_call looked up before: importing it runs Python at length. Nothing
// when it turns out to be needed and is null.
std::optional<std::vector<ToolSummary>> gather(Tracker& tracker, const Ref& is_slow_call) {
    return tracker.health.run_over_python([&](const Health& health) {
        std::optional<std::vector<ToolSummary>> tools;
        if (is_slow_call != nullptr || health.usage.entries().empty()) {
            tools = aside([&] { return summarize(health.states, health.usage); });
            ask_for_slow_calls(*tools, is_slow_call);
        }
        return tools;
    });
}

Ref answer(const Names& names, const UsageRow& row) {
    return make_map(names, {{Name::action, to_python(row.key->action)},
                            {Name::outcome, to_python(row.key->outcome)},
                            {Name::alias_hit, to_python(row.key->alias_hit)},
                            {Name::calls, to_python(row.calls)},
                            {Name::avg_ms, to_python(row.avg_ms)},
                            {Name::slow, to_python(row.slow)}});
}

Ref answer(const Names& names, const ToolSummary& tool, Pacer& pacer) {
    const auto& health = tool.health;
    const auto rows = owned(PyList_New(0));
    for (const auto& row : tool.usage) {
        checked(PyList_Append(rows, answer(names, row)));
        pacer.step();
    }
    return make_map(names, {{Name::tool_name, to_python(health.tool)},
                            {Name::call_count, to_python(health.call_count)},
                            {Name::error_count, to_python(health.error_count)},
                            {Name::last_error, to_python(health.last_error)},
                            {Name::disabled, to_python(health.disabled_at.has_value())},
                            {Name::disabled_at, to_python(health.disabled_at)},
                            {Name::updated_at, to_python(health.updated_at)},
                            {Name::usage, rows}});
}

Ref get_health_summary(Tracker& tracker) {
    auto tools = gather(tracker, {});
    if (!tools) {
        tools = gather(tracker, find(tracker.module, kIsSlowCall));
    }
    aside([&] {
        for (auto& tool : *tools) {
            sort_usage(tool.usage);
        }
    });
    auto answers = owned(PyList_New(0));
    Pacer pacer;
    for (const auto& tool : *tools) {
        checked(PyList_Append(answers, answer(tracker.module.names, tool, pacer)));
        pacer.step();
    }
    free_aside(*tools);
    return answers;
}

// The times that the tools took

PyDoc_STRVAR(kPerformanceStatsDoc, R"(handle_get_tool_performance_stats($module)
--

The performance metrics of all tools, as the timing collector has them: a dict
whose "tools" is a list of dicts with name, count, avg_ms, p95_ms, min_ms,
max_ms (milliseconds) and errors, in the collector's order.

Raises KeyError for a record of the collector's that lacks one of these.)");

Ref tool_entry(const Names& names, const Ref& record) {
    auto entry = owned(PyDict_New());
    for (const auto metric : {Name::name, Name::count, Name::avg_ms, Name::p95_ms, Name::min_ms,
                              Name::max_ms, Name::errors}) {
        set(entry, names[metric], record.item(names[metric]));
    }
    return entry;
}

Ref tool_performance_stats(const ModuleState& module) {
    const auto& names = module.names;
    const auto collector = find(module, kGetTimingCollector)();
    const auto entries = owned(PyList_New(0));
    collector.method(names[Name::get_all_stats]).for_each([&](const Ref& record) {
        checked(PyList_Append(entries, tool_entry(names, record)));
    });
    return make_map(names, {{Name::tools, entries}});
}

// The threads

constexpr Signature<2> kThreadReportSignature{
    "thread_census_report", {Name::budget, Name::census}, 2, 1};

PyDoc_STRVAR(kThreadCensusReportDoc, R"(thread_census_report($module, budget, census=None)
--

A report on the process's threads, as a new dict: os (the operating system's
count, left out where it has none), python (the interpreter's count),
python_by_name, budget, and warning, a text, only when there are more threads
than the budget.

Arguments:
    budget: the most threads that the process's pools allow, int.
    census: a ThreadCensus; one is taken now, which may block, when None.

Raises TypeError for a budget that is no integer and AttributeError for a census
that lacks a field.)");

Ref warning(PyObject* counted, PyObject* budget) {
    const auto decimal = [](PyObject* integer) { return owned(PyNumber_ToBase(integer, 10)); };
    return owned(PyUnicode_FromFormat(
        "The process holds %U threads, more than the %U its pools allow: threads are piling up. "
        "A thread that ran the local embedding model keeps a team of torch threads, as many as "
        "QUILLET_EMBED_THREADS allows (0 leaves torch's own size).",
        decimal(counted).get(), decimal(budget).get()));
}

Ref thread_census_report(const ModuleState& module, PyObject* budget, PyObject* given) {
    const auto& names = module.names;
    if (!PyLong_Check(budget)) {
        raise_wrong_type(kThreadReportSignature, Name::budget, "int", budget);
    }
    const auto census =
        given != nullptr && given != Py_None ? shared(given) : find(module, kThreadCensus)();
    const auto os_threads = census.attribute(names[Name::os_threads]);
    const auto python_total = census.attribute(names[Name::python_total]);
    const auto by_name = owned(PyDict_New());
    checked(PyDict_Update(by_name, census.attribute(names[Name::python_threads])));

    auto report = owned(PyDict_New());
    if (!os_threads.is_none()) {
        set(report, names[Name::os], os_threads);
    }
    set(report, names[Name::python], python_total);
    set(report, names[Name::python_by_name], by_name);
    set(report, names[Name::budget], shared(budget));
    const auto& counted = os_threads.is_none() ? python_total : os_threads;
    if (checked(PyObject_RichCompareBool(counted, budget, Py_GT)) != 0) {
        set(report, names[Name::warning], warning(counted, budget));
    }
    return report;
}

}  // namespace

Methods report_methods() {
    return {method<get_health_summary>("get_health_summary", kGetHealthSummaryDoc)};
}

Methods report_functions() {
    return {
        method<tool_performance_stats>("handle_get_tool_performance_stats", kPerformanceStatsDoc),
        method<thread_census_report, kThreadReportSignature>(kThreadCensusReportDoc),
    };
}

}  // namespace health
