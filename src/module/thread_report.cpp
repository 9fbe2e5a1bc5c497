// The census of the process's threads, measured against the most that its pools allow.
#include "module/answer_map.hpp"
#include "module/collaborators.hpp"
#include "module/status_reports.hpp"

namespace health {
namespace {

constexpr Signature<2> kThreadCensusReport{
    .function = "thread_census_report",
    .parameters = {Name::budget, Name::census},
    .required = 1,
    .self = 0,
};

Ref decimal(PyObject* integer) { return owned(PyNumber_ToBase(integer, 10)); }

Ref warning(PyObject* counted, PyObject* budget) {
    return owned(PyUnicode_FromFormat(
        "The process holds %U threads, more than the %U its pools allow: threads are piling up. "
        "A thread that ran the local embedding model keeps a team of torch threads, as many as "
        "QUILLET_EMBED_THREADS allows (0 leaves torch's own size).",
        decimal(counted).get(), decimal(budget).get()));
}

}  // namespace

Ref thread_census_report(const ModuleState& module, const Call& call) {
    const auto& names = module.names;
    const auto [budget, given] = bind(kThreadCensusReport, names, call);
    if (!PyLong_Check(budget)) {
        raise_wrong_type(kThreadCensusReport.function, names[Name::budget], "int", budget);
    }
    const auto census = given != nullptr && given != Py_None
                            ? shared(given)
                            : owned(PyObject_CallNoArgs(
                                  collaborator(module, "utils.process", "thread_census").get()));
    const auto os_threads = owned(census.getattr(names[Name::os_threads]));
    const auto python_total = owned(census.getattr(names[Name::python_total]));
    const auto python_threads = owned(census.getattr(names[Name::python_threads]));
    const auto by_name = owned(PyDict_New());
    checked(PyDict_Update(by_name.get(), python_threads.get()));

    AnswerMap report(names);
    if (!os_threads.is_none()) {
        report.set(Name::os, os_threads);
    }
    report.set(Name::python, python_total);
    report.set(Name::python_by_name, by_name);
    report.set(Name::budget, shared(budget));
    const auto& counted = os_threads.is_none() ? python_total : os_threads;
    if (checked(PyObject_RichCompareBool(counted.get(), budget, Py_GT)) != 0) {
        report.set(Name::warning, warning(counted.get(), budget));
    }
    return report.map();
}

}  // namespace health
