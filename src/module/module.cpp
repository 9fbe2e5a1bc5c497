// The module `health`: its functions, its constants and how it is loaded.
#include <array>
#include <memory>

#include "module/arguments.hpp"
#include "module/collaborators.hpp"
#include "module/health_mirror.hpp"
#include "module/module_state.hpp"
#include "module/records.hpp"
#include "module/status_reports.hpp"
#include "module/tracker.hpp"
#include "module/usage_mirror.hpp"
#include "module/values.hpp"

namespace health {
namespace {

// Functions

constexpr Signature<1> kSqliteTime{"_sqlite_time", {Name::epoch}, 1, 1, 0};
constexpr Signature<1> kEpoch{"_epoch", {Name::text}, 1, 1, 0};
constexpr Signature<2> kKnown{"_known", {Name::tool, Name::action}, 2, 2, 0};

Ref sqlite_time(const ModuleState& module, const Call& call) {
    const auto [epoch] = bind(kSqliteTime, module.names, call);
    if (epoch == Py_None) {
        return none();
    }
    try {
        const double time = number_argument(kSqliteTime.function, module.names[Name::epoch], epoch);
        return to_python(std::optional(format_timestamp(time)));
    } catch (const PythonError&) {
        // An integer beyond every double is a time out of range like any other.
        if (PyErr_ExceptionMatches(PyExc_OverflowError)) {
            throw UnwritableTime();
        }
        throw;
    }
}

Ref epoch(const ModuleState& module, const Call& call) {
    const auto [text] = bind(kEpoch, module.names, call);
    return to_python(stored_time(text));
}

Ref known(const ModuleState& module, const Call& call) {
    const auto [tool, action] = bind(kKnown, module.names, call);
    const auto tools = collaborator(module, "tool_registry", "TOOLS");
    return to_python(registry_knows(module.names, tools.get(), tool, action));
}

template <Ref (*Function)(const ModuleState&, const Call&)>
PyObject* with_arguments(PyObject* module, PyObject* const* arguments, Py_ssize_t positional,
                         PyObject* keywords) {
    return guarded([&] {
        return Function(state_of(module),
                        {arguments, static_cast<std::size_t>(positional), keywords});
    });
}

template <Ref (*Function)(const ModuleState&, const Call&)>
PyMethodDef function(const char* name, const char* doc) {
    const _PyCFunctionFastWithKeywords function = with_arguments<Function>;
    return {name, reinterpret_cast<PyCFunction>(reinterpret_cast<void (*)()>(function)),
            METH_FASTCALL | METH_KEYWORDS, doc};
}

PyDoc_STRVAR(kModuleDoc,
             R"(Tool health: which tools fail, which are disabled, and how all of them are used.)");

PyDoc_STRVAR(kSqliteTimeDoc, R"(_sqlite_time($module, epoch)
--

The timestamp text, in UTC, of a time in epoch seconds; None for None.

Raises ValueError for a time outside the years 1 to 9999.)");

PyDoc_STRVAR(kEpochDoc, R"(_epoch($module, text)
--

The epoch seconds of a timestamp text; None when it is None, empty or cannot be
read. Raises TypeError for a value that is neither empty nor text.)");

PyDoc_STRVAR(kKnownDoc, R"(_known($module, tool, action)
--

Whether the registry has the tool and, unless `action` is None, that action.)");

PyDoc_STRVAR(kPerformanceStatsDoc, R"(handle_get_tool_performance_stats($module)
--

The performance metrics of all tools, as the timing collector has them: a dict
whose "tools" is a list of dicts with name, count, avg_ms, p95_ms, min_ms,
max_ms (milliseconds) and errors, in the collector's order.

Raises KeyError for a record of the collector's that lacks one of these.)");

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

std::array functions{
    function<tool_performance_stats>("handle_get_tool_performance_stats", kPerformanceStatsDoc),
    function<thread_census_report>("thread_census_report", kThreadCensusReportDoc),
    function<sqlite_time>("_sqlite_time", kSqliteTimeDoc),
    function<epoch>("_epoch", kEpochDoc),
    function<known>("_known", kKnownDoc),
    PyMethodDef{},
};

// Loading

// "quillet." for "quillet.tool_handlers.health": the package that holds tool_handlers. Nothing
// for the plain module "health".
std::string package_of(std::string module_name) {
    for (int level = 0; level < 2; ++level) {
        const auto dot = module_name.rfind('.');
        if (dot == std::string::npos) {
            return "";
        }
        module_name.resize(dot);
    }
    return module_name + '.';
}

using StatePointer = std::unique_ptr<ModuleState>;

// The interpreter's memory for the module's state is zeroed: a null pointer until it is loaded.
StatePointer& state_pointer(PyObject* module) {
    return *static_cast<StatePointer*>(PyModule_GetState(module));
}

void add(PyObject* module, const char* name, const Ref& value) {
    checked(PyModule_AddObjectRef(module, name, value.get()));
}

int load(PyObject* module) {
    const Ref done(guarded([&] {
        const auto name = owned(PyModule_GetNameObject(module));
        state_pointer(module) = std::make_unique<ModuleState>(ModuleState{
            .module = module,
            .package = package_of(std::string(Text(name.get()).text)),
            .names = {},
            .tool_state_type = make_tool_state_type(name.get()),
            .usage_type = make_usage_type(name.get()),
            .enabled = make_tuple(to_python(false), none()),
        });
        const auto logging = owned(PyImport_ImportModule("logging"));
        add(module, "logger",
            owned(PyObject_CallMethod(logging.get(), "getLogger", "O", name.get())));
        add(module, "_SQLITE_TIMESTAMP", to_python(kTimestampFormat));
        add(module, "_TOOL_HEALTH_COLUMNS", to_python(std::string_view(HEALTH_COLUMNS)));
        add(module, "TOOL_USAGE_KEY", to_python(std::string_view(kUsageDocumentKey)));
        add(module, "_ToolState", state_of(module).tool_state_type);
        add(module, "_Usage", state_of(module).usage_type);
        add(module, "_UsageKey", make_usage_key_type());
        add(module, "ToolHealthTracker", make_tracker_type(module, name.get()));
        return none();
    }));
    return done ? 0 : -1;
}

int traverse(PyObject* module, visitproc visit, void* arg) {
    if (const auto& state = state_pointer(module)) {
        Py_VISIT(state->tool_state_type.get());
        Py_VISIT(state->usage_type.get());
    }
    return 0;
}

void unload(void* module) { std::destroy_at(&state_pointer(static_cast<PyObject*>(module))); }

std::array slots{
    PyModuleDef_Slot{Py_mod_exec, reinterpret_cast<void*>(load)},
    PyModuleDef_Slot{},
};

PyModuleDef definition{
    PyModuleDef_HEAD_INIT,
    "health",
    kModuleDoc,
    sizeof(StatePointer),
    functions.data(),
    slots.data(),
    traverse,
    nullptr,
    unload,
};

}  // namespace

const ModuleState& state_of(PyObject* module) {
    const auto* state = static_cast<StatePointer*>(PyModule_GetState(module));
    if (state == nullptr || *state == nullptr) {
        PyErr_SetString(PyExc_ImportError, "the module has not been loaded");
        throw PythonError();
    }
    return **state;
}

const ModuleState& state_of_class(PyTypeObject* type) {
    PyObject* module = PyType_GetModuleByDef(type, &definition);
    if (module == nullptr) {
        throw PythonError();
    }
    return state_of(module);
}

}  // namespace health

PyMODINIT_FUNC PyInit_health() { return PyModuleDef_Init(&health::definition); }
