// The performance metrics of all tools, as the timing collector has them.
#include <array>

#include "module/answer_map.hpp"
#include "module/collaborators.hpp"
#include "module/status_reports.hpp"

namespace health {
namespace {

constexpr Signature<0> kPerformanceStats{
    .function = "handle_get_tool_performance_stats",
    .parameters = {},
    .self = 0,
};

constexpr std::array kMetrics{Name::name,   Name::count,  Name::avg_ms, Name::p95_ms,
                              Name::min_ms, Name::max_ms, Name::errors};

Ref tool_entry(const Names& names, PyObject* record) {
    AnswerMap entry(names);
    for (const auto metric : kMetrics) {
        entry.set(metric, owned(PyObject_GetItem(record, names[metric])));
    }
    return entry.map();
}

}  // namespace

Ref tool_performance_stats(const ModuleState& module, const Call& call) {
    const auto& names = module.names;
    bind(kPerformanceStats, names, call);
    const auto get_timing_collector = collaborator(module, "utils.timing", "get_timing_collector");
    const auto collector = owned(PyObject_CallNoArgs(get_timing_collector.get()));
    const auto stats =
        owned(PyObject_CallMethodNoArgs(collector.get(), names[Name::get_all_stats]));
    const auto records = owned(stats.iter());
    const auto entries = owned(PyList_New(0));
    while (const Ref record = records.next()) {
        checked(PyList_Append(entries.get(), tool_entry(names, record.get()).get()));
    }
    if (PyErr_Occurred() != nullptr) {
        throw PythonError();
    }
    return AnswerMap(names).set(Name::tools, entries).map();
}

}  // namespace health
