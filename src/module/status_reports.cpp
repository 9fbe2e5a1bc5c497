// The status answers that need no tracker: the times that tools took, and the threads.
#include "module/collaborators.hpp"
#include "module/operation.hpp"
#include "module/values.hpp"

namespace health {
namespace {

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
        entry.set_item(names[metric], record.item(names[metric]));
    }
    return entry;
}

Ref tool_performance_stats(const ModuleState& module) {
    const auto& names = module.names;
    const auto collector = find_collaborator(module, kGetTimingCollector)();
    const auto entries = owned(PyList_New(0));
    collector.method(names[Name::get_all_stats]).for_each([&](const Ref& record) {
        checked(PyList_Append(entries, tool_entry(names, record)));
    });
    auto answer = owned(PyDict_New());
    answer.set_item(names[Name::tools], entries);
    return answer;
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
    const auto census = given != nullptr && given != Py_None
                            ? shared(given)
                            : find_collaborator(module, kThreadCensus)();
    const auto os_threads = census.attribute(names[Name::os_threads]);
    const auto python_total = census.attribute(names[Name::python_total]);
    const auto by_name = owned(PyDict_New());
    checked(PyDict_Update(by_name, census.attribute(names[Name::python_threads])));

    auto report = owned(PyDict_New());
    if (!os_threads.is_none()) {
        report.set_item(names[Name::os], os_threads);
    }
    report.set_item(names[Name::python], python_total);
    report.set_item(names[Name::python_by_name], by_name);
    report.set_item(names[Name::budget], shared(budget));
    const auto& counted = os_threads.is_none() ? python_total : os_threads;
    if (checked(PyObject_RichCompareBool(counted, budget, Py_GT)) != 0) {
        report.set_item(names[Name::warning], warning(counted, budget));
    }
    return report;
}

}  // namespace

Methods status_functions() {
    return {
        method<tool_performance_stats>("handle_get_tool_performance_stats", kPerformanceStatsDoc),
        method<thread_census_report, kThreadReportSignature>(kThreadCensusReportDoc),
    };
}

}  // namespace health
